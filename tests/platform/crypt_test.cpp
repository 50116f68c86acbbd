// Encryption of short secrets and the key behind it.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <filesystem>
#include <set>
#include <string>

#include "children.h"
#include "kestcore.h"
#include "support/files.h"

namespace {

const char kFolder[] = "/usr/kest/etc";
const char kKey[] = "/usr/kest/etc/secret.key";
constexpr int kSize = 345;

class Crypt : public testing::Test {
 protected:
  void SetUp() override {
    chmod(kFolder, 0755);
    std::filesystem::remove_all(kFolder);
    ASSERT_EQ(mkdir(kFolder, 0755), 0);
  }

  // The text, or "(failed)"; a failure must leave the buffer empty.
  static std::string encrypt(const std::string &plain, int size = kSize) {
    char buffer[4096] = "unchanged";
    const int result = KLIBCryptSzEncrypt(plain.c_str(), buffer, size);
    EXPECT_TRUE(result == 1 || *buffer == '\0');
    return result == 1 ? buffer : "(failed)";
  }

  static std::string decrypt(const std::string &text, int size = 4095) {
    char buffer[4096] = "unchanged";
    const int result = KLIBCryptSzDecrypt(text.c_str(), buffer, size);
    EXPECT_TRUE(result == 1 || *buffer == '\0');
    return result == 1 ? buffer : "(failed)";
  }

  static size_t filesInFolder() {
    const std::filesystem::directory_iterator begin(kFolder), end;
    return static_cast<size_t>(std::distance(begin, end));
  }
};

TEST_F(Crypt, secretsRoundTrip) {
  std::string everyByte;
  for (int c = 1; c < 216; ++c) everyByte += static_cast<char>(c + 40);
  for (const std::string &secret :
       {std::string(), std::string("p"), std::string("pass \"word\" $%\\\n"), everyByte,
        std::string("J\xc3\xbcrgen")})
    EXPECT_EQ(decrypt(encrypt(secret)), secret);
}

TEST_F(Crypt, textIsPrintableWithoutQuotesOrBlanksAndHidesTheSecret) {
  const std::string text = encrypt("very secret");
  for (const char c : text) {
    EXPECT_TRUE(isgraph(static_cast<unsigned char>(c)));
    EXPECT_NE(c, '"');
    EXPECT_NE(c, '\'');
  }
  EXPECT_EQ(text.find("secret"), std::string::npos);
}

TEST_F(Crypt, sameSecretGivesAnotherTextEachTime) {
  std::set<std::string> texts;
  for (int i = 0; i < 50; ++i) texts.insert(encrypt("secret"));
  EXPECT_EQ(texts.size(), 50u);
}

TEST_F(Crypt, bufferOf345BytesCarriesExactlyUpTo215) {
  for (size_t length = 0; length <= 215; ++length) {
    const std::string secret(length, 's');
    ASSERT_EQ(decrypt(encrypt(secret)), secret) << length;
  }
  EXPECT_EQ(encrypt(std::string(215, 's')).size(), 344u);
  EXPECT_EQ(encrypt(std::string(215, 's'), kSize - 1), "(failed)");
  EXPECT_EQ(KLIBCErrGet(), KLIBC_ERR_TOO_LONG);
  for (const size_t length : {216u, 217u, 300u, 100000u})
    EXPECT_EQ(encrypt(std::string(length, 's')), "(failed)") << length;
}

TEST_F(Crypt, longerSecretsNeedLargerBuffers) {
  const std::string secret(1000, 's');
  EXPECT_EQ(decrypt(encrypt(secret, 4096)), secret);
}

TEST_F(Crypt, encryptWritesNothingBehindItsBuffer) {
  char buffer[kSize + 1];
  for (size_t length = 0; length <= 220; ++length) {
    buffer[kSize] = 'X';
    KLIBCryptSzEncrypt(std::string(length, 's').c_str(), buffer, kSize);
    ASSERT_EQ(buffer[kSize], 'X');
  }
}

TEST_F(Crypt, emptyTextIsTheEmptySecret) {
  EXPECT_EQ(decrypt(""), "");
  EXPECT_FALSE(fileExists(kKey));
}

TEST_F(Crypt, secretMustFitTheBufferWithItsNul) {
  const std::string text = encrypt("12345");
  EXPECT_EQ(decrypt(text, 6), "12345");
  EXPECT_EQ(decrypt(text, 5), "(failed)");
  EXPECT_EQ(KLIBCErrGet(), KLIBC_ERR_TOO_LONG);
}

TEST_F(Crypt, everyChangedByteIsNoticed) {
  const std::string text = encrypt("secret password");
  ASSERT_EQ(decrypt(text), "secret password");
  for (size_t i = 0; i < text.size(); ++i)
    for (int mask = 1; mask < 256; ++mask) {
      std::string changed = text;
      changed[i] = static_cast<char>(changed[i] ^ mask);
      if (changed[i] == '\0') continue;  // that is a shorter text, see below
      ASSERT_EQ(decrypt(changed), "(failed)") << i << " ^ " << mask;
    }
}

// The base64 decoder takes some bytes above 127 for letters; a text this long has
// all letters in it.
TEST_F(Crypt, highBitIsNoticedInEveryByte) {
  const std::string text = encrypt(std::string(1500, 's'), 4096);
  ASSERT_NE(text.find('+'), std::string::npos);
  ASSERT_NE(text.find('/'), std::string::npos);
  for (size_t i = 0; i < text.size(); ++i) {
    std::string changed = text;
    changed[i] = static_cast<char>(changed[i] ^ 0x80);
    ASSERT_EQ(decrypt(changed), "(failed)") << i << ": " << text[i];
  }
}

TEST_F(Crypt, shortenedExtendedAndForeignTextsAreRefused) {
  const std::string text = encrypt("secret");
  for (size_t length = 1; length < text.size(); ++length)
    ASSERT_EQ(decrypt(text.substr(0, length)), "(failed)") << length;
  for (const std::string &bad :
       {text + "A", text + "=", text + "\n", " " + text, text + text,
        std::string("secret"), std::string(344, 'A')})
    EXPECT_EQ(decrypt(bad), "(failed)") << bad;
  EXPECT_EQ(KLIBCErrGet(), KLIBC_ERR_CRYPT_FAILED);
}

TEST_F(Crypt, textOfAnotherMachineIsRefused) {
  const std::string text = encrypt("secret");
  const std::string key = readFile(kKey);
  writeFile(kKey, std::string(32, 'k'), 0600);
  EXPECT_EQ(decrypt(text), "(failed)");
  writeFile(kKey, key, 0600);
  EXPECT_EQ(decrypt(text), "secret");
}

TEST_F(Crypt, keyIsMadeOnFirstUseReadableByItsOwnerAlone) {
  const mode_t before = umask(0);
  encrypt("secret");
  umask(before);
  struct stat st;
  ASSERT_EQ(stat(kKey, &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  EXPECT_EQ(st.st_size, 32);
  EXPECT_EQ(st.st_uid, geteuid());
  EXPECT_EQ(filesInFolder(), 1u);
  const std::string key = readFile(kKey);
  encrypt("another");
  EXPECT_EQ(readFile(kKey), key);
}

TEST_F(Crypt, keysOfTwoMachinesDiffer) {
  encrypt("secret");
  const std::string key = readFile(kKey);
  ASSERT_EQ(unlink(kKey), 0);
  encrypt("secret");
  EXPECT_NE(readFile(kKey), key);
}

TEST_F(Crypt, folderOfTheKeyIsMadeWhenMissing) {
  ASSERT_EQ(rmdir(kFolder), 0);
  EXPECT_EQ(decrypt(encrypt("secret")), "secret");
}

TEST_F(Crypt, decryptingNeverMakesAKey) {
  const std::string text = encrypt("secret");
  ASSERT_EQ(unlink(kKey), 0);
  EXPECT_EQ(decrypt(text), "(failed)");
  EXPECT_EQ(filesInFolder(), 0u);
}

TEST_F(Crypt, keyThatOthersCanUseIsRefusedAndLeftAlone) {
  const std::string text = encrypt("secret");
  const std::string key = readFile(kKey);
  for (const mode_t mode : {0640u, 0620u, 0604u, 0602u, 0666u, 0610u}) {
    ASSERT_EQ(chmod(kKey, mode), 0);
    EXPECT_EQ(encrypt("secret"), "(failed)") << mode;
    EXPECT_EQ(decrypt(text), "(failed)") << mode;
    EXPECT_EQ(KLIBCErrGet(), KLIBC_ERR_CRYPT_FAILED);
  }
  ASSERT_EQ(chmod(kKey, 0600), 0);
  EXPECT_EQ(readFile(kKey), key);
  EXPECT_EQ(decrypt(text), "secret");
}

TEST_F(Crypt, keyOfWrongSizeOrKindIsRefused) {
  for (const size_t size : {0u, 31u, 33u}) {
    writeFile(kKey, std::string(size, 'k'), 0600);
    EXPECT_EQ(encrypt("secret"), "(failed)") << size;
    EXPECT_EQ(readFile(kKey).size(), size);
  }
  ASSERT_EQ(unlink(kKey), 0);
  writeFile("/usr/kest/etc/real", std::string(32, 'k'), 0600);
  ASSERT_EQ(symlink("real", kKey), 0);
  EXPECT_EQ(encrypt("secret"), "(failed)");
  ASSERT_EQ(unlink(kKey), 0);
  ASSERT_EQ(mkdir(kKey, 0700), 0);
  EXPECT_EQ(encrypt("secret"), "(failed)");
}

TEST_F(Crypt, keyThatCannotBeMadeFails) {
  ASSERT_EQ(chmod(kFolder, 0555), 0);
  EXPECT_EQ(encrypt("secret"), "(failed)");
  EXPECT_EQ(KLIBCErrGet(), KLIBC_ERR_CRYPT_FAILED);
  EXPECT_EQ(filesInFolder(), 0u);
}

TEST_F(Crypt, badParametersFail) {
  char buffer[kSize] = "x";
  EXPECT_EQ(KLIBCryptSzEncrypt(nullptr, buffer, kSize), 0);
  EXPECT_STREQ(buffer, "");
  EXPECT_EQ(KLIBCryptSzEncrypt("x", nullptr, kSize), 0);
  EXPECT_EQ(KLIBCryptSzEncrypt("x", buffer, 0), 0);
  EXPECT_EQ(KLIBCryptSzEncrypt("x", buffer, -1), 0);
  EXPECT_EQ(KLIBCryptSzEncrypt("x", buffer, 1), 0);
  EXPECT_EQ(KLIBCryptSzDecrypt(nullptr, buffer, kSize), 0);
  EXPECT_EQ(KLIBCryptSzDecrypt("x", nullptr, kSize), 0);
  EXPECT_EQ(KLIBCryptSzDecrypt("", buffer, 0), 0);
  EXPECT_EQ(KLIBCErrGet(), KLIBC_ERR_BAD_PARAMETERS);
}

// Each of eight processes meets a machine without a key; all must end up with one.
TEST_F(Crypt, processesThatMeetAtFirstUseMakeOneKey) {
  for (int round = 0; round < 25; ++round) {
    SetUp();
    const int failed = runTogether(8, [&](int process) {
      const std::string number = std::to_string(process);
      const std::string text = encrypt("secret" + number);
      writeFile("/var/tmp/text" + number, text);
      return decrypt(text) == "secret" + number ? 0 : 1;
    });
    ASSERT_EQ(failed, 0);
    for (int process = 0; process < 8; ++process) {
      const std::string number = std::to_string(process);
      ASSERT_EQ(decrypt(readFile("/var/tmp/text" + number)), "secret" + number);
    }
    ASSERT_EQ(filesInFolder(), 1u);
  }
}

}  // namespace
