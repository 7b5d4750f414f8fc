#include "keyfile.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "aeskeywrap.h"
#include "console_input.h"
#include "messages.h"
#include "pbkdf2.h"
#include "database.h"

namespace bt {

namespace {

constexpr int kLineSize = 512;
constexpr int kTextItem = 512;
constexpr int kKeyIdItem = 64;
constexpr int kWrappedItem = 40;
constexpr int kUninterpretedItem = 256;

// One answer; what does not fit stays for the next read, as with any line read.
void ReadLine(char* buffer) {
  bool ended = false;
  ReadConsoleLine(buffer, kLineSize, &ended);
}

// Decimal text as atoi reads it, within the item's bytes; a value beyond the 32-bit range is
// clamped to it, as the system's atoi does.
int ItemNumber(const std::uint8_t* item, int length) {
  int i = 0;
  bool negative = false;
  std::int64_t value = 0;
  while (i < length && (item[i] == ' ' || (item[i] >= '\t' && item[i] <= '\r'))) ++i;
  if (i < length && (item[i] == '+' || item[i] == '-')) negative = item[i++] == '-';
  constexpr std::int64_t kBeyond = std::int64_t{INT32_MAX} + 2;  // past both ends once signed
  while (i < length && item[i] >= '0' && item[i] <= '9') value = std::min(value * 10 + (item[i++] - '0'), kBeyond);
  if (negative) value = -value;
  return static_cast<int>(std::clamp<std::int64_t>(value, INT32_MIN, INT32_MAX));
}

bool SameUser(const std::uint8_t* item, int length, const char* typed) {
  if (static_cast<std::size_t>(length) != std::strlen(typed)) return false;
  for (int i = 0; i < length; ++i) {
    auto lower = [](unsigned c) { return c >= 'A' && c <= 'Z' ? c + 32 : c; };
    if (lower(item[i]) != lower(static_cast<unsigned char>(typed[i]))) return false;
  }
  return true;
}

struct UserEntry {
  std::uint8_t username[kTextItem];
  int usernameLength = 0;
  std::uint8_t iterations[kTextItem];
  int iterationsLength = 0;
  std::uint8_t salt[kTextItem];
  int saltLength = 0;
  int kekLength = 0;
  std::uint8_t wrapped[kWrappedItem];
  int wrappedLength = 0;
};

// When the key encryption key length is checked: a 1.0 user entry checks it before reading the
// wrapped key, a 2.0 administrator record after reading all five items.
enum class KekCheck { kBeforeWrappedKey, kAfterWholeEntry };

// Reads the items after the username; false (with its message) on a bad key encryption key length.
bool ReadUserEntryRest(platform::File file, UserEntry& e, KekCheck when) {
  e.iterationsLength = ReadKeyfileItem(file, e.iterations, kTextItem);
  e.saltLength = ReadKeyfileItem(file, e.salt, kTextItem);
  std::uint8_t kek[kTextItem];
  e.kekLength = ItemNumber(kek, ReadKeyfileItem(file, kek, kTextItem));
  const bool valid = e.kekLength == 16 || e.kekLength == 24 || e.kekLength == 32;
  if (valid || when == KekCheck::kAfterWholeEntry) e.wrappedLength = ReadKeyfileItem(file, e.wrapped, kWrappedItem);
  if (!valid) PrintTo(stderr, "Illegal key encryption key length: %d\n", e.kekLength);
  return valid;
}

// The user's key encryption key from the password; unwraps the entry's key with it.
bool UnwrapUserKey(const UserEntry& e, const char* password, std::uint8_t* key, std::size_t* keyLength) {
  std::uint8_t kek[32];
  crypto::Pbkdf2HmacSha1(reinterpret_cast<const std::uint8_t*>(password), std::strlen(password),
                         ItemNumber(e.iterations, e.iterationsLength), e.salt, static_cast<std::size_t>(e.saltLength),
                         kek, static_cast<std::size_t>(e.kekLength));
  return crypto::AesKeyUnwrap(e.wrapped, static_cast<std::size_t>(e.wrappedLength), kek,
                              static_cast<std::size_t>(e.kekLength), key, keyLength) == 1;
}

int BuildSchedules(const std::uint8_t* key, std::size_t length) {
  if (crypto::AesSetEncryptKey(key, static_cast<int>(length), encryptionKeySchedule) != 0 ||
      crypto::AesSetDecryptKey(key, static_cast<int>(length), decryptionKeySchedule) != 0) {
    PrintTo(stderr, "Error initializing encryption key schedules.\n");
    return 0;
  }
  databaseKeyLoaded = true;
  return 1;
}

// Reads the algorithm item; only 1 (AES) is known. On anything else: the message, the keyfile closed.
bool ReadAlgorithm(platform::File file) {
  std::uint8_t algorithm[kTextItem];
  const int number = ItemNumber(algorithm, ReadKeyfileItem(file, algorithm, kTextItem));
  if (number == 1) return true;
  PrintTo(stderr, "Illegal database encryption algorithm: %d", number);  // no line end, as always
  platform::Close(file);
  return false;
}

int NotFound(platform::File file, const char* username) {
  PrintTo(stderr, "Key material for \"%s\" not found in keyfile.\n", username);
  platform::Close(file);
  return 0;
}

int LoadVersion1(platform::File file, int labelLength, const std::uint8_t* labelId, const char* username,
                 const char* password) {
  std::uint8_t keyId[kKeyIdItem];
  const int keyIdLength = ReadKeyfileItem(file, keyId, kKeyIdItem);
  if (keyIdLength == 0 || keyIdLength > kKeyIdItem) {
    PrintTo(stderr, "Illegal database encryption key ID length: %d\n", keyIdLength);
    platform::Close(file);
    return 0;
  }
  if (keyIdLength != labelLength || std::memcmp(keyId, labelId, static_cast<std::size_t>(labelLength)) != 0) {
    PrintTo(stderr,
            "The decryption key in the keyfile\n(key ID = %.*s)\ndoes not match that specified in the database "
            "header block\n(key ID = %.*s).\n",
            keyIdLength, reinterpret_cast<const char*>(keyId), labelLength, reinterpret_cast<const char*>(labelId));
    return 0;  // the keyfile stays open on this path, as it always has
  }
  if (!ReadAlgorithm(file)) return 0;
  UserEntry e;
  for (;;) {
    e.usernameLength = ReadKeyfileItem(file, e.username, kTextItem);
    if (e.usernameLength == 0) return NotFound(file, username);
    if (!ReadUserEntryRest(file, e, KekCheck::kBeforeWrappedKey)) {
      platform::Close(file);
      return 0;
    }
    if (SameUser(e.username, e.usernameLength, username)) break;
  }
  platform::Close(file);
  std::uint8_t key[kWrappedItem];
  std::size_t keyLength = 0;
  if (!UnwrapUserKey(e, password, key, &keyLength)) {
    PrintTo(stderr, "Key decrypt failure.  Possible incorrect password\n");
    return 0;
  }
  return BuildSchedules(key, keyLength);
}

struct KeySlot {
  std::uint8_t keyId[kKeyIdItem];
  std::uint8_t uninterpreted[kUninterpretedItem];
  std::uint8_t wrapped[kWrappedItem];
  int wrappedLength = 0;
};

int LoadVersion2(platform::File file, int labelLength, const std::uint8_t* labelId, const char* username,
                 const char* password) {
  // A key record goes to the slot numbered by the matching records seen so far, so slot 0 ends up
  // holding the first record with the database's key ID.
  std::vector<KeySlot> slots(1);
  std::size_t matches = 0;
  UserEntry admin;
  for (;;) {
    std::uint8_t tag[kTextItem] = {};
    const int tagLength = ReadKeyfileItem(file, tag, kTextItem);
    if (tagLength == 0) return NotFound(file, username);
    if (std::memcmp(tag, "KEY", 4) == 0) {
      if (slots.size() <= matches) slots.resize(matches + 1);
      KeySlot& slot = slots[matches];
      const int keyIdLength = ReadKeyfileItem(file, slot.keyId, kKeyIdItem);
      if (!ReadAlgorithm(file)) return 0;
      ReadKeyfileItem(file, slot.uninterpreted, kUninterpretedItem);
      std::uint8_t discarded[kTextItem];
      ReadKeyfileItem(file, discarded, kTextItem);
      slot.wrappedLength = ReadKeyfileItem(file, slot.wrapped, kWrappedItem);
      if (keyIdLength == labelLength && std::memcmp(slot.keyId, labelId, static_cast<std::size_t>(labelLength)) == 0)
        ++matches;
    } else if (std::memcmp(tag, "ADM", 4) == 0) {
      admin.usernameLength = ReadKeyfileItem(file, admin.username, kTextItem);
      if (!ReadUserEntryRest(file, admin, KekCheck::kAfterWholeEntry)) {
        platform::Close(file);
        return 0;
      }
      if (SameUser(admin.username, admin.usernameLength, username)) break;
    } else {
      PrintTo(stderr, "Illegal keyfile record:  %.*s\n", tagLength, reinterpret_cast<const char*>(tag));
      platform::Close(file);
      return 0;
    }
  }
  platform::Close(file);
  if (matches != 1) {
    PrintTo(stderr,
            "The input keyfile does not contain the key specified in the database or journal file header "
            "block\n(key ID = %.*s).\n",
            labelLength, reinterpret_cast<const char*>(labelId));
    return 0;
  }
  std::uint8_t master[kWrappedItem], key[kWrappedItem];
  std::size_t masterLength = 0, keyLength = 0;
  if (!UnwrapUserKey(admin, password, master, &masterLength) ||
      crypto::AesKeyUnwrap(slots[0].wrapped, static_cast<std::size_t>(slots[0].wrappedLength), master, masterLength,
                           key, &keyLength) != 1) {
    PrintTo(stderr, "Key decrypt failure.  Possible incorrect password.\n");
    return 0;
  }
  return BuildSchedules(key, keyLength);
}

}  // namespace

int ReadKeyfileItem(platform::File file, std::uint8_t* buffer, int maximum) {
  buffer[0] = 0;
  std::uint8_t prefix[2];
  if (platform::Read(file, prefix, 2) != 2) return 0;
  const int length = prefix[0] | prefix[1] << 8;
  if (length == 0) return 0;
  if (length > maximum) FailTo(stderr, "Illegal keyfile item length: %d\n", length);
  platform::ClearLastError();
  if (platform::Read(file, buffer, static_cast<std::size_t>(length)) != length) {
    // A file that simply ends leaves no error number; its text would read like success.
    if (platform::LastError() == 0) platform::RecordShortTransfer(false);
    FailTo(stderr, "Error reading keyfile item:  %s\n", platform::SystemErrorText(platform::LastError()).c_str());
  }
  if (length < maximum) buffer[length] = 0;
  return length;
}

int LoadDatabaseKey(int keyIdLength, const std::uint8_t* keyId) {
  char path[kLineSize], username[kLineSize], password[kLineSize];
  std::fflush(stdout);
  PrintTo(stderr, "Keyfile: ");
  ReadLine(path);
  PrintTo(stderr, "Username: ");
  ReadLine(username);
  if (username[0] == '\0') {
    PrintTo(stderr, "Username is required.\n");
    return 0;
  }
  PrintTo(stderr, "Password: ");
  platform::EchoState echo;
  platform::DisableEcho(echo);
  ReadLine(password);
  platform::RestoreEcho(echo);
  PrintTo(stderr, "\n");

  // Either separator may be typed; the system's own is used.
  for (char* c = path; *c != '\0'; ++c)
    if (*c == '\\' || *c == '/') *c = platform::kSeparator;
  platform::File file = platform::OpenReadOnly(path);
  if (file == platform::kInvalidFile) {
    PrintTo(stderr, "Error opening keyfile.\n");
    return 0;
  }
  std::uint8_t version[kTextItem];
  const int versionLength = ReadKeyfileItem(file, version, kTextItem);
  const bool v1 = versionLength == 3 && std::memcmp(version, "1.0", 3) == 0;
  const bool v2 = versionLength == 3 && std::memcmp(version, "2.0", 3) == 0;
  if (!v1 && !v2) {
    PrintTo(stderr, "Illegal keyfile version:  %.*s\n", versionLength, reinterpret_cast<const char*>(version));
    platform::Close(file);
    return 0;
  }
  return v1 ? LoadVersion1(file, keyIdLength, keyId, username, password)
            : LoadVersion2(file, keyIdLength, keyId, username, password);
}

}  // namespace bt
