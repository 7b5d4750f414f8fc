#include <gtest/gtest.h>

#include "aes_core.h"
#include "block_cipher.h"
#include "label_block.h"
#include "run.h"
#include "database.h"

using namespace testsupport;
using Key = std::vector<std::uint8_t>;

namespace {

Key MakeKey(std::size_t size) {
  Key k(size);
  for (std::size_t i = 0; i < size; ++i) k[i] = static_cast<std::uint8_t>(i * 29 + 3);
  return k;
}

gendb::Params Encrypted(bool big, const Key& key, std::uint64_t seed) {
  gendb::Params p;
  p.seed = seed;
  p.bigEndian = big;
  p.lastBlock = 800;
  p.mix = gendb::Mix{4, 6, 1, 3, 1, 1, 1};
  p.compressShare = 0.2;
  p.databaseKey = key;
  p.keyId = "payroll-2026";
  return p;
}

std::string Answers(const std::string& keyfile, const std::string& user = "admin", const std::string& password = "s3cret") {
  return Shown(keyfile) + "\n" + user + "\n" + password + "\n";
}

// Both keyfile versions, the three key sizes, both orders: the twin's exact bytes.
TEST(Keyfile, EncryptedDatabasesConvertToTheirEncryptedMirrorImage) {
  int round = 0;
  for (const char* version : {"1.0", "2.0"}) {
    for (std::size_t size : {16u, 24u, 32u}) {
      const bool big = (round++ % 2) == 0;
      Scratch s;
      const Key key = MakeKey(size);
      ASSERT_EQ(gendb::WriteKeyfile(s.Path("db.key"), version, "payroll-2026", "admin", "s3cret", key), "");
      // Answers typed on Windows end in CR LF; they are the same answers.
      std::string answers;
      for (char c : Answers(s.Path("db.key"), "Admin")) answers += size == 24 && c == '\n' ? "\r\n" : std::string(1, c);
      RunResult r = ExpectConvertsToTwin(Encrypted(big, key, round), s, answers);
      EXPECT_EQ(r.err, "Keyfile: Username: Password: \n");
      EXPECT_NE(r.out.find("Database is marked as encrypted.\n"), std::string::npos);
    }
  }
}

struct Case {
  std::string name;
  gendb::KeyfileBuilder keyfile;
  std::string answers;  // empty: the standard answers
  std::string err;      // expected standard error
  bool readerEnds = false;  // the item reader ends the run itself, before the caller's line
};

// Each refusal leaves every byte of the database as it was and takes no lock.
TEST(Keyfile, RulesAndMessages) {
  Scratch s;
  const Key key = MakeKey(16);
  const std::vector<std::uint8_t> salt = {1, 2, 3, 4};
  const std::string db = s.Path("ORVA.DAT"), keyfile = s.Path("k.bin");
  Generate(Encrypted(true, key, 5), db);
  const auto before = ReadBytes(db);
  const std::string prompts = "Keyfile: Username: Password: \n";
  std::vector<std::uint8_t> master(32, 9);

  std::vector<Case> cases;
  auto v1 = [&] { return gendb::KeyfileBuilder().Text("1.0").Text("payroll-2026").Text("1"); };
  cases.push_back({"wrong password 1.0", v1().User("admin", "other", 5, salt, 16, key), "",
                   prompts + "Key decrypt failure.  Possible incorrect password\n"});
  cases.push_back({"wrong password 2.0",
                   gendb::KeyfileBuilder().Text("2.0").KeyRecord("payroll-2026", master, key).Text("ADM").User(
                       "admin", "other", 5, salt, 32, master),
                   "", prompts + "Key decrypt failure.  Possible incorrect password.\n"});
  cases.push_back({"empty username", v1(), s.Path("k.bin") + "\n\nx\n", "Keyfile: Username: Username is required.\n"});
  cases.push_back({"missing keyfile", v1(), "/nonexistent/k\nadmin\nx\n", prompts + "Error opening keyfile.\n"});
  cases.push_back({"version of four bytes", gendb::KeyfileBuilder().Item({'1', '.', '0', 0}), "",
                   prompts + "Illegal keyfile version:  1.0\n"});
  cases.push_back({"key ID is case-sensitive", gendb::KeyfileBuilder().Text("1.0").Text("PAYROLL-2026"), "",
                   prompts + "The decryption key in the keyfile\n(key ID = PAYROLL-2026)\ndoes not match that specified "
                             "in the database header block\n(key ID = payroll-2026).\n"});
  cases.push_back({"algorithm", gendb::KeyfileBuilder().Text("1.0").Text("payroll-2026").Text("2"), "",
                   prompts + "Illegal database encryption algorithm: 2"});
  cases.push_back({"user not found by length", v1().User("admin1", "s3cret", 5, salt, 16, key), "",
                   prompts + "Key material for \"admin\" not found in keyfile.\n"});
  cases.push_back({"kek length 40", v1().User("admin", "s3cret", 5, salt, 40, key), "",
                   prompts + "Illegal key encryption key length: 40\n"});
  cases.push_back({"item longer than its maximum", gendb::KeyfileBuilder().Text("1.0").Text(std::string(65, 'k')), "",
                   prompts + "Illegal keyfile item length: 65\n", true});
  cases.push_back({"key record after the user's administrator record",
                   gendb::KeyfileBuilder().Text("2.0").Text("ADM").User("admin", "s3cret", 5, salt, 16, master).KeyRecord(
                       "payroll-2026", master, key),
                   "",
                   prompts + "The input keyfile does not contain the key specified in the database or journal file "
                             "header block\n(key ID = payroll-2026).\n"});
  cases.push_back({"the key twice",
                   gendb::KeyfileBuilder().Text("2.0").KeyRecord("payroll-2026", master, key).KeyRecord(
                       "payroll-2026", master, key).Text("ADM").User("admin", "s3cret", 5, salt, 16, master),
                   "",
                   prompts + "The input keyfile does not contain the key specified in the database or journal file "
                             "header block\n(key ID = payroll-2026).\n"});
  cases.push_back({"record tag", gendb::KeyfileBuilder().Text("2.0").Text("XYZ"), "", prompts + "Illegal keyfile record:  XYZ\n"});
  cases.push_back({"record tag compared with its terminator", gendb::KeyfileBuilder().Text("2.0").Text("KEYX"), "",
                   prompts + "Illegal keyfile record:  KEYX\n"});
  cases.push_back({"1.0 keyfile that ends after its version", gendb::KeyfileBuilder().Text("1.0"), "",
                   prompts + "Illegal database encryption key ID length: 0\n"});
  cases.push_back({"database key of 8 bytes", v1().User("admin", "s3cret", 5, salt, 16, Key(8, 7)), "",
                   prompts + "Error initializing encryption key schedules.\n"});
  cases.push_back({"typed username longer than the stored one", v1().User("admin", "s3cret", 5, salt, 16, key),
                   Answers(keyfile, "adminX"), prompts + "Key material for \"adminX\" not found in keyfile.\n"});
  cases.push_back({"2.0 algorithm",
                   gendb::KeyfileBuilder().Text("2.0").Text("KEY").Text("payroll-2026").Text("3"), "",
                   prompts + "Illegal database encryption algorithm: 3"});
  cases.push_back({"2.0 kek length",
                   gendb::KeyfileBuilder().Text("2.0").Text("ADM").User("admin", "s3cret", 5, salt, 12, master), "",
                   prompts + "Illegal key encryption key length: 12\n"});
  // atoi clamps to the 32-bit range.
  cases.push_back({"kek length beyond the 32-bit range",
                   v1().Text("admin").Text("5").Item(salt).Text(" +99999999999").Item(Key(24, 1)), "",
                   prompts + "Illegal key encryption key length: 2147483647\n"});
  cases.push_back({"negative kek length beyond the 32-bit range",
                   v1().Text("admin").Text("5").Item(salt).Text("-99999999999x").Item(Key(24, 1)), "",
                   prompts + "Illegal key encryption key length: -2147483648\n"});
  // 1.0 checks the kek length before reading the wrapped key; a 2.0 administrator record reads
  // all five items first.
  cases.push_back({"1.0 kek length before the wrapped key",
                   v1().Text("dba").Text("1000").Text("saltsalt").Text("20").Item(Key(41, 1)), "",
                   prompts + "Illegal key encryption key length: 20\n"});
  cases.push_back({"2.0 wrapped key read before the kek length",
                   gendb::KeyfileBuilder().Text("2.0").Text("ADM").Text("dba").Text("1000").Text("saltsalt").Text(
                       "20").Item(Key(41, 1)),
                   "", prompts + "Illegal keyfile item length: 41\n", true});
  cases.push_back({"a directory as the keyfile", v1(), Answers(s.dir), prompts + "Error opening keyfile.\n"});
  for (Case& c : cases) {
    ASSERT_EQ(c.keyfile.Save(keyfile), "");
    RunResult r = RunByteturn({"-t", db}, c.answers.empty() ? Answers(keyfile) : c.answers);
    EXPECT_EQ(r.status, 1) << c.name;
    EXPECT_EQ(r.err, c.err + (c.readerEnds ? "" : "Error processing keyfile.\n")) << c.name;
    EXPECT_EQ(r.out, "big-endian <8192 Bytes>\r\nDatabase is marked as encrypted.\n") << c.name;
    EXPECT_EQ(ReadBytes(db), before) << c.name;
    EXPECT_FALSE(Exists(s.Path("orva.lck"))) << c.name;
  }

  // An item cut short ends the process from the reader itself, naming the end of the file.
  for (gendb::KeyfileBuilder cut :
       {v1(), gendb::KeyfileBuilder().Text("2.0").Text("ADM").Text("dba").Text("1000").Text("salt").Text("20")}) {
    cut.bytes.insert(cut.bytes.end(), {10, 0, 'a'});
    ASSERT_EQ(cut.Save(keyfile), "");
    RunResult r = RunByteturn({"-t", db}, Answers(keyfile));
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, prompts + "Error reading keyfile item:  " + SystemText(Codes().endOfFile) + "\n");
  }
}

TEST(Keyfile, LabelChecksComeFirstAndReportsNeverAsk) {
  Scratch s;
  const std::string db = s.Path("db.dat");
  Generate(Encrypted(false, MakeKey(16), 6), db);
  RunResult r = RunByteturn({"-r", db});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.out, "This database is little-endian.\r\nThis database has a block size of 8192 Bytes.\r\n");
  for (std::uint16_t length : {0, 65, 0x8004}) {
    PatchU16(db, bt::label::kKeyIdLength, length, false);
    r = RunByteturn({"-t", db}, "never read\n");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out, "little-endian <8192 Bytes>\r\nDatabase is marked as encrypted.\n"
                     "Illegal database encryption key ID length in label block:" + std::to_string(length) + "\n");
  }
}

TEST(Keyfile, BlockIvIsTheBigEndianBlockNumberEncrypted) {
  const Key key = MakeKey(32);
  bt::SetGeometry(1);
  bt::databaseKeyLoaded = false;
  std::vector<std::uint8_t> block(4096, 0), before = block;
  EXPECT_EQ(bt::DecryptDataBlock(block.data(), block.data(), 1), 0);
  EXPECT_EQ(bt::EncryptDataBlock(block.data(), block.data(), 1), 0);
  EXPECT_EQ(block, before);

  crypto::AesSetEncryptKey(key.data(), 32, bt::encryptionKeySchedule);
  crypto::AesSetDecryptKey(key.data(), 32, bt::decryptionKeySchedule);
  bt::databaseKeyLoaded = true;
  for (std::uint32_t b : {1u, 16909060u}) {
    block.assign(4096, 0);
    ASSERT_EQ(bt::EncryptDataBlock(block.data(), block.data(), b), 1);
    // The first piece of zeros is AES(IV) with IV = AES(b big-endian, twelve zeros).
    std::uint8_t expected[16] = {static_cast<std::uint8_t>(b >> 24), static_cast<std::uint8_t>(b >> 16),
                                 static_cast<std::uint8_t>(b >> 8), static_cast<std::uint8_t>(b)};
    crypto::AesEncryptBlock(expected, expected, bt::encryptionKeySchedule);
    crypto::AesEncryptBlock(expected, expected, bt::encryptionKeySchedule);
    EXPECT_TRUE(std::equal(expected, expected + 16, block.begin())) << b;
    std::vector<std::uint8_t> stored = block;
    ASSERT_EQ(bt::DecryptDataBlock(block.data(), block.data(), b), 1);
    EXPECT_EQ(block, std::vector<std::uint8_t>(4096, 0));
    bt::EncryptDataBlock(block.data(), block.data(), b);
    EXPECT_EQ(block, stored);
  }
  bt::databaseKeyLoaded = false;
}

}  // namespace
