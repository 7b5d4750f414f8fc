// Test database generator. From a seed and a few parameters it writes a complete database in
// either byte order from the same logical content, so that converting the big-endian image must
// give the little-endian image byte for byte, and the reverse.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace gendb {

// Relative weights of the kinds of ordinary (non-free) blocks.
struct Mix {
  unsigned other = 1;        // unknown type code: header only
  unsigned data = 0;         // data blocks with typed values, big strings and big vectors
  unsigned gdir = 0;         // global directory blocks
  unsigned pointer = 0;      // pointer blocks
  unsigned mirror = 0;       // mirror info blocks (version 2)
  unsigned looseBig = 0;     // big string blocks nobody references (left untouched)
  unsigned badOffset = 0;    // blocks whose offset is out of range (left untouched)
};

// A volume set: the main file plus further volume files, in the primary directory or in
// additional directories (relative ones are taken from the main file's directory).
struct VolumeSetParams {
  unsigned volumes = 0;                  // further volumes; 0 = a single file
  std::vector<std::string> directories;  // additional volume directories, ending in '/'
  std::vector<unsigned> placement;       // by volume - 1: 0 = primary directory, k = directories[k - 1]
  std::vector<std::string> storedList;   // the directory list of the primary volume info block
  bool markers = true;                   // orva.dbdir in each additional directory, naming the primary one
  std::uint32_t volumeInfoBlock = 3;     // the primary volume info block
};

struct Params {
  std::uint64_t seed = 1;
  std::uint32_t sizeCode = 2;
  bool bigEndian = true;
  std::uint32_t lastBlock = 2000;
  double freeShare = 0.1;       // share of ordinary blocks marked free
  double clearFlagShare = 0.0;  // share of maps whose bitmap flag is 0 (bits not consulted)
  bool sparse = false;          // free blocks are holes instead of garbage
  bool converted = false;       // write the image a conversion from the other order must give
  Mix mix;
  std::string managerDirectory = "/srv/orva/mgr/";
  bool unicodeManagerDirectory = false;  // length above 255: a run of 16-bit units
  // Share of data blocks whose nodes reference big strings / big vectors, and the share of big
  // string references that point at a block already referenced once.
  double bigRefShare = 0.3;
  double sharedBigShare = 0.2;
  // Mirror info blocks written in the version 1 layout (raised to version 2 by a conversion).
  double mirrorV1Share = 0.0;
  // Compressed blocks: share of eligible blocks stored compressed and the methods to use (1..5).
  double compressShare = 0.0;
  std::vector<int> methods = {1, 2, 3, 5};
  // Encryption: the database key (16, 24 or 32 bytes) and its key ID; empty = clear database.
  std::vector<std::uint8_t> databaseKey;
  std::string keyId;
  VolumeSetParams volumeSet;
};

// Paths of the files of a database generated at path: the main file, then volume 1, 2, ...
std::vector<std::string> DatabaseFiles(const Params& params, const std::string& path);

// What a generation produced, for tests that must know a case was exercised.
struct Stats {
  unsigned compressed[6] = {};  // blocks stored compressed, by method
  unsigned bigStrings = 0, bigVectors = 0;
};

// Writes the database to path; returns "" on success, else what went wrong.
std::string GenerateDatabase(const Params& params, const std::string& path, Stats* stats = nullptr);

// Compresses with the system's compression libraries, loaded at run time: the stream length, or
// 0 when the method's library is missing or the stream does not fit in capacity.
std::size_t CompressStream(int method, const std::uint8_t* source, std::size_t size, std::uint8_t* destination,
                           std::size_t capacity);

// Byte-level comparison that reads only the data extents of sparse files. Returns "" when equal,
// else a description of the first difference (block number and offset for the given block size).
std::string CompareFiles(const std::string& a, const std::string& b, std::uint32_t blockSize);

// Geometry for a block size code, independent of the converter's own tables.
struct Geometry {
  std::uint32_t blockSize, bpm, cm, sat;
};
Geometry GeometryFor(std::uint32_t sizeCode);

// Keyfiles. An item is a 2-byte length (least significant byte first) and its bytes.
struct KeyfileBuilder {
  std::vector<std::uint8_t> bytes;
  KeyfileBuilder& Item(const std::vector<std::uint8_t>& item);
  KeyfileBuilder& Text(const std::string& text);
  // A user entry: username, iteration count, salt, key encryption key length and key wrapped
  // under the key encryption key derived from password.
  KeyfileBuilder& User(const std::string& name, const std::string& password, int iterations,
                       const std::vector<std::uint8_t>& salt, int kekLength, const std::vector<std::uint8_t>& key);
  // A version 2.0 key record.
  KeyfileBuilder& KeyRecord(const std::string& keyId, const std::vector<std::uint8_t>& master,
                            const std::vector<std::uint8_t>& key);
  std::string Save(const std::string& path) const;
};
// RFC 3394 key wrap with the default initial value.
std::vector<std::uint8_t> AesKeyWrap(const std::vector<std::uint8_t>& kek, const std::vector<std::uint8_t>& key);
// A keyfile for one database key: version "1.0", or "2.0" with a master key and other records.
std::string WriteKeyfile(const std::string& path, const std::string& version, const std::string& keyId,
                         const std::string& user, const std::string& password,
                         const std::vector<std::uint8_t>& databaseKey);
// Encrypts a block in place the way the database does: AES-CBC with the block number's IV.
void EncryptBlock(const std::vector<std::uint8_t>& key, std::uint8_t* block, std::uint32_t size, std::uint32_t b);

// Deterministic 64-bit generator.
struct Rng {
  std::uint64_t state;
  bool lowEntropy = false;  // few distinct values: content that compresses well
  explicit Rng(std::uint64_t seed) : state(seed) {}
  std::uint64_t Next() {
    std::uint64_t z = (state += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    z ^= z >> 31;
    return lowEntropy ? (z & 3) * 0x0101010101010101ull : z;
  }
  std::uint32_t Below(std::uint32_t n) { return n == 0 ? 0 : static_cast<std::uint32_t>(Next() % n); }
  double Unit() { return static_cast<double>(Next() >> 11) / 9007199254740992.0; }
  std::uint8_t Byte() { return static_cast<std::uint8_t>(Next()); }
};

// Writes values in one byte order into a byte buffer.
struct Out {
  std::uint8_t* p;
  std::size_t size;
  bool big;
  void U16(std::size_t off, std::uint16_t v) const {
    p[off + (big ? 1 : 0)] = static_cast<std::uint8_t>(v);
    p[off + (big ? 0 : 1)] = static_cast<std::uint8_t>(v >> 8);
  }
  void U32(std::size_t off, std::uint32_t v) const {
    for (int i = 0; i < 4; ++i) p[off + (big ? 3 - i : i)] = static_cast<std::uint8_t>(v >> (8 * i));
  }
  void U64(std::size_t off, std::uint64_t v) const {
    for (int i = 0; i < 8; ++i) p[off + (big ? 7 - i : i)] = static_cast<std::uint8_t>(v >> (8 * i));
  }
  std::uint32_t Get32(std::size_t off) const {
    std::uint32_t v = 0;
    for (int i = 0; i < 4; ++i) v |= std::uint32_t{p[off + (big ? 3 - i : i)]} << (8 * i);
    return v;
  }
  // Filler bytes; zeros for content meant to compress well.
  void Random(std::size_t off, std::size_t n, Rng& rng) const {
    for (std::size_t i = 0; i < n; ++i) p[off + i] = rng.lowEntropy ? 0 : rng.Byte();
  }
};

}  // namespace gendb
