// Loading and saving the settings: the library against a bare loop over the lines,
// and the settings file's writer against writing, syncing and renaming the same
// bytes. Loading uses the package's own file; saving uses the working folder, which
// has to lie on a real disk for the syncs to count.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>

#include "kestcore.h"
#include "ratio.h"
#include "receive_protocol.h"
#include "smtp.h"

namespace {

constexpr char kSettings[] = "/var/packages/Postwell/etc/postwell.conf";
constexpr char kSaved[] = "saved.conf";
constexpr char kFormat[] = "%s=\"%s\"\n";

// All keys of the package, as its defaults are installed.
const char *const kLines[][2] = {
    {"pop3_enabled", "no"},
    {"pop3s_enabled", "no"},
    {"imap_enabled", "no"},
    {"imaps_enabled", "no"},
    {"smtp_enabled", "no"},
    {"account_type", "local"},
    {"acc_domain_name", ""},
    {"win_domain_short_name", ""},
    {"smtp_auth_enabled", "yes"},
    {"smtp_ignore_lan_auth", "no"},
    {"smtp_hostname", "mail.example.com"},
    {"smtp_port", "25"},
    {"message_limit", "10"},
    {"restrict_sender", "no"},
    {"smtp_ssl_enabled", "no"},
    {"smtps_port", "465"},
    {"smtp_relay_enabled", "no"},
    {"smtp_relay_server", ""},
    {"smtp_relay_server_port", "0"},
    {"smtp_relay_secure_conn", "no"},
    {"smtp_relay_auth_enabled", "no"},
    {"smtp_relay_account", ""},
    {"smtp_relay_password", ""},
    {"spam_enable", "no"},
    {"spam_required_score", "5.00"},
    {"spam_enable_rewrite", "no"},
    {"spam_rewrite_subject", "*****SPAM*****"},
    {"spam_report_machanism", "1"},  // spelt so in every settings file
    {"spam_auto_learn", "no"},
    {"spam_learn_threshold_spam", "12.00"},
    {"spam_learn_threshold_non_spam", "0.10"},
    {"spam_auto_whitelist", "no"},
    {"spam_dnsbl_enable", "no"},
    {"spam_clean_interval", "30"},
    {"anti_virus_enable", "no"},
    {"canonical_domain", ""},
    {"always_bcc", ""},
};

std::string settingsText() {
  std::string text;
  for (const auto &line : kLines) text += std::string(line[0]) + "=\"" + line[1] + "\"\n";
  return text;
}

// ---- loading

void load(benchmark::State &state) {
  for (auto _ : state) {
    ReceiveProtocol protocol;
    SMTP smtp;
    if (protocol.load() != 0 || smtp.load() != 0)
      return state.SkipWithError("the settings cannot be loaded");
    benchmark::DoNotOptimize(smtp);
  }
}

// One pass over the file that finds key and value of each line.
size_t splitLines() {
  FILE *file = fopen(kSettings, "re");
  if (file == nullptr) return 0;
  char *line = nullptr;
  size_t space = 0, pairs = 0;
  while (getline(&line, &space, file) > 0) {
    char *value = strchr(line, '=');
    char *end = strrchr(line, '"');
    if (value == nullptr || end == nullptr) continue;
    *value++ = '\0';
    *end = '\0';
    benchmark::DoNotOptimize(value);
    ++pairs;
  }
  free(line);
  fclose(file);
  return pairs;
}

void bareLoop(benchmark::State &state) {
  constexpr int kPasses = 3;  // protocols, SMTP and relay each read the file
  for (auto _ : state)
    for (int pass = 0; pass < kPasses; ++pass)
      if (splitLines() != std::size(kLines))
        return state.SkipWithError("lines are missing");
}

// ---- saving

void save(benchmark::State &state) {
  KLIBCSzHash *table = KLIBCSzHashAlloc(1024);
  for (const auto &line : kLines)
    if (KLIBCSzHashSetValue(&table, line[0], line[1]) != 0)
      state.SkipWithError("no memory");
  for (auto _ : state)
    if (KLIBCFileSetKeys(kSaved, table, 0, kFormat) != 0) {
      state.SkipWithError("the settings cannot be saved");
      break;
    }
  KLIBCSzHashFree(table);
}

bool writeAndRename(const std::string &text) {
  const int file = open("bare.new", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  const int folder = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const bool written =
      write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
      fsync(file) == 0;
  const bool done = close(file) == 0 && written && rename("bare.new", "bare.conf") == 0 &&
                    fsync(folder) == 0;
  close(folder);
  return done;
}

void bareWrite(benchmark::State &state) {
  const std::string text = settingsText();
  for (auto _ : state)
    if (!writeAndRename(text)) return state.SkipWithError("the file cannot be written");
}

bool writeText(const char *path) {
  std::ofstream file(path);
  file << settingsText();
  file.close();
  return file.good();
}

}  // namespace

int main(int argc, char **argv) {
  if (!writeText(kSettings) || !writeText(kSaved)) {
    fprintf(stderr, "%s: cannot write %s and %s (run it under hermetic-run)\n", argv[0],
            kSettings, kSaved);
    return 1;
  }
  return runRatios(argc, argv,
                   {{"load protocols, SMTP and relay", load, bareLoop, 4.0},
                    {"save all keys", save, bareWrite, 1.1}});
}
