// Reversible encryption of short secrets: libsodium's secretbox with a random key
// of this machine.
//
// A text is "sb1:" and, in base64 without padding, a random nonce and the box. The
// box is authenticated: a text that was changed, or made with another key, does not
// open. Nobody but the key's owner may be able to read or change the key file; one
// that is laxer is refused, never mended, since its key may be known already.

#include <fcntl.h>
#include <sodium.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "descriptor.h"
#include "error.h"
#include "text_file.h"

using namespace kestcore;

namespace {

constexpr std::string_view kScheme = "sb1:";
constexpr char kKeyFolder[] = "/usr/kest/etc";
constexpr char kKeyFile[] = "/usr/kest/etc/secret.key";
constexpr int kBase64 = sodium_base64_VARIANT_ORIGINAL_NO_PADDING;
constexpr size_t kNonce = crypto_secretbox_NONCEBYTES;
constexpr size_t kOverhead = kNonce + crypto_secretbox_MACBYTES;

// The key, wiped when it goes.
struct Key {
  unsigned char bytes[crypto_secretbox_KEYBYTES];
  Key() noexcept { sodium_memzero(bytes, sizeof bytes); }
  Key(const Key &) = delete;
  Key &operator=(const Key &) = delete;
  ~Key() { sodium_memzero(bytes, sizeof bytes); }
};

// False with errno ENOENT when there is no key yet.
bool readKey(Key *key) noexcept {
  const Descriptor file(open(kKeyFile, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  if (!file.ok()) return false;
  struct stat st;
  errno = 0;
  return fstat(file.get(), &st) == 0 && S_ISREG(st.st_mode) && (st.st_mode & 077) == 0 &&
         st.st_uid == geteuid() && st.st_size == sizeof key->bytes &&
         read(file.get(), key->bytes, sizeof key->bytes) == sizeof key->bytes;
}

bool syncFolder(const char *path) noexcept {
  const Descriptor folder(open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return folder.ok() && fsync(folder.get()) == 0;
}

bool makeKeyFolder() {
  const std::string parent = folderOf(kKeyFolder);
  return (mkdir(parent.c_str(), 0755) == 0 || errno == EEXIST) &&
         (mkdir(kKeyFolder, 0755) == 0 || errno == EEXIST);
}

// Makes the key file unless another process is faster: link() gives the name to one
// of them only, and the file is whole by then.
bool makeKeyFile() {
  if (!makeKeyFolder()) return false;
  Key key;
  randombytes_buf(key.bytes, sizeof key.bytes);
  std::string path = std::string(kKeyFile) + ".XXXXXX";
  Descriptor file(mkostemp(path.data(), O_CLOEXEC));  // mode 0600
  if (!file.ok()) return false;
  const std::string_view bytes(reinterpret_cast<const char *>(key.bytes),
                               sizeof key.bytes);
  const bool written =
      writeAll(file.get(), bytes) && fsync(file.get()) == 0 && file.close();
  const bool named = written && (link(path.c_str(), kKeyFile) == 0 || errno == EEXIST);
  return unlink(path.c_str()) == 0 && named && syncFolder(kKeyFolder);
}

bool readOrMakeKey(Key *key) {
  return readKey(key) || (errno == ENOENT && makeKeyFile() && readKey(key));
}

int encrypt(std::string_view plain, char *buffer, int size) {
  if (sodium_init() < 0) return fail(KLIBC_ERR_CRYPT_FAILED);
  std::vector<unsigned char> box(kOverhead + plain.size());
  const size_t needed =
      kScheme.size() + sodium_base64_encoded_len(box.size(), kBase64);  // with its NUL
  if (needed > static_cast<size_t>(size)) return fail(KLIBC_ERR_TOO_LONG);
  Key key;
  if (!readOrMakeKey(&key)) return fail(KLIBC_ERR_CRYPT_FAILED);
  randombytes_buf(box.data(), kNonce);
  if (crypto_secretbox_easy(box.data() + kNonce,
                            reinterpret_cast<const unsigned char *>(plain.data()),
                            plain.size(), box.data(), key.bytes) != 0)
    return fail(KLIBC_ERR_CRYPT_FAILED);
  memcpy(buffer, kScheme.data(), kScheme.size());
  sodium_bin2base64(buffer + kScheme.size(), static_cast<size_t>(size) - kScheme.size(),
                    box.data(), box.size(), kBase64);
  return 0;
}

int decrypt(std::string_view text, char *buffer, int size) {
  if (sodium_init() < 0 || text.substr(0, kScheme.size()) != kScheme)
    return fail(KLIBC_ERR_CRYPT_FAILED);
  text.remove_prefix(kScheme.size());
  // Where char is signed, libsodium takes some bytes above 127 for letters.
  if (text.empty() ||
      std::any_of(text.begin(), text.end(), [](char c) { return (c & 0x80) != 0; }))
    return fail(KLIBC_ERR_CRYPT_FAILED);
  std::vector<unsigned char> box(text.size());
  size_t length = 0;
  if (sodium_base642bin(box.data(), box.size(), text.data(), text.size(), nullptr,
                        &length, nullptr, kBase64) != 0 ||
      length < kOverhead)
    return fail(KLIBC_ERR_CRYPT_FAILED);
  if (length - kOverhead >= static_cast<size_t>(size)) return fail(KLIBC_ERR_TOO_LONG);
  Key key;
  // The box is checked before a byte of the secret is written to the buffer.
  if (!readKey(&key) ||
      crypto_secretbox_open_easy(reinterpret_cast<unsigned char *>(buffer),
                                 box.data() + kNonce, length - kNonce, box.data(),
                                 key.bytes) != 0)
    return fail(KLIBC_ERR_CRYPT_FAILED);
  buffer[length - kOverhead] = '\0';
  return 0;
}

}  // namespace

int KLIBCryptSzEncrypt(const char *plain, char *buffer, int size) {
  if (buffer != nullptr && size > 0) buffer[0] = '\0';
  if (plain == nullptr || buffer == nullptr || size <= 0) {
    fail(KLIBC_ERR_BAD_PARAMETERS);
    return 0;
  }
  return guarded(0, [&] { return encrypt(plain, buffer, size) == 0; });
}

int KLIBCryptSzDecrypt(const char *text, char *buffer, int size) {
  if (buffer != nullptr && size > 0) buffer[0] = '\0';
  if (text == nullptr || buffer == nullptr || size <= 0) {
    fail(KLIBC_ERR_BAD_PARAMETERS);
    return 0;
  }
  if (*text == '\0') return 1;
  return guarded(0, [&] { return decrypt(text, buffer, size) == 0; });
}
