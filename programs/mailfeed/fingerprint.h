// A number that tells texts apart, the same on every machine (64-bit FNV-1a).

#ifndef POSTWELL_MAILFEED_FINGERPRINT_H_
#define POSTWELL_MAILFEED_FINGERPRINT_H_

#include <cstdint>
#include <string_view>

inline uint64_t fingerprintOf(std::string_view text) {
  uint64_t hash = 14695981039346656037U;
  for (const char c : text)
    hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211U;
  return hash;
}

#endif  // POSTWELL_MAILFEED_FINGERPRINT_H_
