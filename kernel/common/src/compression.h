// Compressed blocks: the method table, run-time loading of the compression libraries and the
// decompression of a block in place.
//
// Envelope of a compressed block: u32 at 0 = L, the stream length (database order); bit 7 of the
// type byte set; byte 5 = method 1..5; the stream at 8. It decompresses to exactly one block.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace compression {

enum Method { kZlib = 1, kZstd = 2, kLz4 = 3, kNull = 4, kDeflate = 5 };

// State flags of a method table entry.
inline constexpr std::uint32_t kLoaded = 1, kLoadFailed = 2, kNullMethod = 4, kDeflateMethod = 8;

struct CompressionMethod {
  const char* name;
  std::uint32_t stateFlags;
  std::uint32_t index;
  int (*load)(CompressionMethod& entry, std::size_t messageSize, char* message);
  int (*decompress)(std::uint8_t* destination, std::size_t* destinationLength, const std::uint8_t* source,
                    std::size_t sourceLength);
};

// The five methods, indexed by method - 1.
extern CompressionMethod compressionMethodTable[5];

struct LibrarySymbol {
  const char* name;
  std::uint32_t flags;  // bit 0: required; bit 1: address kept in the entry, not in the slot
  void** slot;
  void* address;
};
struct LibraryTable {
  const char* baseName;
  void* handle;
  LibrarySymbol* symbols;  // ends with a null name
};

// 0 = loaded (or already), -1 = the library file could not be loaded, -2 = a symbol is missing.
int LoadCompressionLibrary(LibraryTable& table, bool report, std::size_t messageSize, char* message);

// Forgets which libraries failed to load, so that the next failure is reported again.
void ForgetLoadFailures();

// True when decompressing a block stored with method would first load its library (which may
// fail): the method is one of the five and not loaded yet.
bool MethodNeedsLoading(std::uint8_t method);

// Decompresses the block in place when its envelope is valid and its stream yields exactly one
// block. 1 = done (decompressed, or left compressed), 0 = the method's library is unusable.
// binDirectory (ending in a separator) is where the libraries are looked for first; the caller
// refuses to go on without one. A library that cannot be loaded is reported on standard output,
// or appended to *report when it is given.
int DecompressBlock(std::uint8_t* block, std::uint32_t blockSize, bool bigEndian, const std::string& binDirectory,
                    std::string* report = nullptr);

}  // namespace compression
