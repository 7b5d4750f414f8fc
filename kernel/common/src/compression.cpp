#include "compression.h"

#include <cstdio>
#include <cstring>

#include "byteorder.h"
#include "platform.h"

namespace compression {

namespace {

std::string binDirectory;

using UncompressFn = int (*)(unsigned char*, unsigned long*, const unsigned char*, unsigned long);
using ZstdDecompressFn = std::size_t (*)(void*, std::size_t, const void*, std::size_t);
using ZstdIsErrorFn = unsigned (*)(std::size_t);
using ZstdGetErrorNameFn = const char* (*)(std::size_t);
using Lz4DecompressSafeFn = int (*)(const char*, char*, int, int);

// Process-wide slots of the symbols, filled by the loader.
void* zlibSlots[10];
void* zstdSlots[17];
void* lz4Slots[10];

constexpr std::uint32_t kRequired = 1;

#define BT_SYMBOL(name, slots, i) {name, kRequired, &slots[i], nullptr}
LibrarySymbol zlibSymbols[] = {
    BT_SYMBOL("compressBound", zlibSlots, 0), BT_SYMBOL("compress", zlibSlots, 1),
    BT_SYMBOL("uncompress", zlibSlots, 2),    BT_SYMBOL("deflateInit2_", zlibSlots, 3),
    BT_SYMBOL("deflateBound", zlibSlots, 4),  BT_SYMBOL("deflate", zlibSlots, 5),
    BT_SYMBOL("deflateEnd", zlibSlots, 6),    BT_SYMBOL("inflateInit2_", zlibSlots, 7),
    BT_SYMBOL("inflate", zlibSlots, 8),       BT_SYMBOL("inflateEnd", zlibSlots, 9),
    {nullptr, 0, nullptr, nullptr}};
LibrarySymbol zstdSymbols[] = {
    BT_SYMBOL("ZSTD_compressBound", zstdSlots, 0),     BT_SYMBOL("ZSTD_isError", zstdSlots, 1),
    BT_SYMBOL("ZSTD_compress", zstdSlots, 2),          BT_SYMBOL("ZSTD_decompress", zstdSlots, 3),
    BT_SYMBOL("ZSTD_createCStream", zstdSlots, 4),     BT_SYMBOL("ZSTD_freeCStream", zstdSlots, 5),
    BT_SYMBOL("ZSTD_initCStream", zstdSlots, 6),       BT_SYMBOL("ZSTD_resetCStream", zstdSlots, 7),
    BT_SYMBOL("ZSTD_compressStream", zstdSlots, 8),    BT_SYMBOL("ZSTD_flushStream", zstdSlots, 9),
    BT_SYMBOL("ZSTD_endStream", zstdSlots, 10),        BT_SYMBOL("ZSTD_createDStream", zstdSlots, 11),
    BT_SYMBOL("ZSTD_freeDStream", zstdSlots, 12),      BT_SYMBOL("ZSTD_initDStream", zstdSlots, 13),
    BT_SYMBOL("ZSTD_resetDStream", zstdSlots, 14),     BT_SYMBOL("ZSTD_decompressStream", zstdSlots, 15),
    BT_SYMBOL("ZSTD_getErrorName", zstdSlots, 16),     {nullptr, 0, nullptr, nullptr}};
LibrarySymbol lz4Symbols[] = {
    BT_SYMBOL("LZ4_compressBound", lz4Slots, 0),          BT_SYMBOL("LZ4_compress_default", lz4Slots, 1),
    BT_SYMBOL("LZ4_decompress_safe", lz4Slots, 2),        BT_SYMBOL("LZ4_createStream", lz4Slots, 3),
    BT_SYMBOL("LZ4_freeStream", lz4Slots, 4),             BT_SYMBOL("LZ4_resetStream", lz4Slots, 5),
    BT_SYMBOL("LZ4_compress_fast_continue", lz4Slots, 6), BT_SYMBOL("LZ4_createStreamDecode", lz4Slots, 7),
    BT_SYMBOL("LZ4_freeStreamDecode", lz4Slots, 8),       BT_SYMBOL("LZ4_decompress_safe_continue", lz4Slots, 9),
    {nullptr, 0, nullptr, nullptr}};
#undef BT_SYMBOL

LibraryTable zlibTable{"zlib1", nullptr, zlibSymbols};
LibraryTable zstdTable{"zstd", nullptr, zstdSymbols};
LibraryTable lz4Table{"lz4", nullptr, lz4Symbols};

template <typename Fn>
Fn Symbol(void* slot) {
  return reinterpret_cast<Fn>(slot);
}

// Where the loader's reports go: standard output, or the text of the caller that asked for them.
std::string* reportText = nullptr;
void Report(const char* text) {
  if (reportText == nullptr) {
    std::printf("\n\r%s\n\r", text);
    return;
  }
  *reportText += "\n\r";
  *reportText += text;
  *reportText += "\n\r";
}

int LoadWith(LibraryTable& table, CompressionMethod& entry, std::size_t messageSize, char* message) {
  return LoadCompressionLibrary(table, (entry.stateFlags & kLoadFailed) == 0, messageSize, message);
}
int LoadZlib(CompressionMethod& e, std::size_t n, char* m) { return LoadWith(zlibTable, e, n, m); }
int LoadZstd(CompressionMethod& e, std::size_t n, char* m) { return LoadWith(zstdTable, e, n, m); }
int LoadLz4(CompressionMethod& e, std::size_t n, char* m) { return LoadWith(lz4Table, e, n, m); }
int LoadNothing(CompressionMethod&, std::size_t, char*) { return 0; }

int DecompressZlib(std::uint8_t* dst, std::size_t* dstLength, const std::uint8_t* src, std::size_t srcLength) {
  unsigned long length = *dstLength;
  switch (Symbol<UncompressFn>(zlibSlots[2])(dst, &length, src, srcLength)) {
    case 0: *dstLength = length; return 0;
    case -6: return -4;  // version
    case -5:             // buffer
    case -4: return -3;  // memory
    case -3:             // data
    case -2: return -2;  // stream
    default: return -5;
  }
}

int DecompressZstd(std::uint8_t* dst, std::size_t* dstLength, const std::uint8_t* src, std::size_t srcLength) {
  const std::size_t r = Symbol<ZstdDecompressFn>(zstdSlots[3])(dst, *dstLength, src, srcLength);
  if (!Symbol<ZstdIsErrorFn>(zstdSlots[1])(r)) {
    *dstLength = r;
    return 0;
  }
  const char* name = Symbol<ZstdGetErrorNameFn>(zstdSlots[16])(r);
  if (std::strcmp(name, "Destination buffer is too small") == 0 ||
      std::strcmp(name, "Allocation error : not enough memory") == 0)
    return -3;
  if (std::strcmp(name, "Version not supported") == 0) return -4;
  if (std::strcmp(name, "Restored data doesn't match checksum") == 0) return -2;
  return -5;
}

int DecompressLz4(std::uint8_t* dst, std::size_t* dstLength, const std::uint8_t* src, std::size_t srcLength) {
  const int r = Symbol<Lz4DecompressSafeFn>(lz4Slots[2])(reinterpret_cast<const char*>(src),
                                                         reinterpret_cast<char*>(dst), static_cast<int>(srcLength),
                                                         static_cast<int>(*dstLength));
  if (r < 0) return -5;
  *dstLength = static_cast<std::size_t>(r);
  return 0;
}

int DecompressNull(std::uint8_t* dst, std::size_t* dstLength, const std::uint8_t* src, std::size_t srcLength) {
  if (*dstLength < srcLength) return -3;
  std::memcpy(dst, src, srcLength);
  *dstLength = srcLength;
  return 0;
}

void StoreSymbol(LibrarySymbol& symbol, void* address) {
  if (symbol.flags & 2)
    symbol.address = address;
  else
    *symbol.slot = address;
}

}  // namespace

CompressionMethod compressionMethodTable[5] = {
    {"zlib", 0, 0, LoadZlib, DecompressZlib},
    {"zstd", 0, 1, LoadZstd, DecompressZstd},
    {"lz4", 0, 2, LoadLz4, DecompressLz4},
    {"null", kNullMethod, 3, LoadNothing, DecompressNull},
    {"deflate", kDeflateMethod, 4, LoadZlib, DecompressZlib},
};

int LoadCompressionLibrary(LibraryTable& table, bool report, std::size_t messageSize, char* message) {
  if (table.handle != nullptr) return 0;
  const std::string path = platform::LibraryPath(binDirectory, table.baseName);
  platform::ClearLastError();
  table.handle = platform::LibraryOpen(path);
  if (table.handle == nullptr) {
    const int error = platform::LastError();
    char text[600];
    if (report) {
      std::snprintf(text, sizeof text, "Error loading %s: %d", path.c_str(), error);
      Report(text);
    }
    if (message != nullptr) std::snprintf(message, messageSize, "Error %d loading %s", error, path.c_str());
    return -1;
  }
  for (LibrarySymbol* s = table.symbols; s->name != nullptr; ++s) {
    void* address = platform::LibrarySymbol(table.handle, s->name);
    if (address == nullptr && (s->flags & kRequired)) {
      const int error = platform::LastError();
      char text[700];
      if (report) {
        std::snprintf(text, sizeof text, "Error loading symbol %s from %s: %d", s->name, path.c_str(), error);
        Report(text);
      }
      if (message != nullptr)
        std::snprintf(message, messageSize, "Error %d loading symbol %s from %s", error, s->name, path.c_str());
      for (LibrarySymbol* r = table.symbols; r->name != nullptr; ++r) StoreSymbol(*r, nullptr);
      platform::LibraryClose(table.handle);
      table.handle = nullptr;
      return -2;
    }
    StoreSymbol(*s, address);
  }
  return 0;
}

void ForgetLoadFailures() {
  for (CompressionMethod& method : compressionMethodTable) method.stateFlags &= ~kLoadFailed;
}

bool MethodNeedsLoading(std::uint8_t method) {
  return method >= 1 && method <= 5 && (compressionMethodTable[method - 1].stateFlags & kLoaded) == 0;
}

int DecompressBlock(std::uint8_t* block, std::uint32_t blockSize, bool bigEndian, const std::string& binDir,
                    std::string* report) {
  const int method = block[5];
  const std::int32_t length = static_cast<std::int32_t>(bt::Load32(block, bigEndian));
  if (length < 1 || length > static_cast<std::int32_t>(blockSize) - 4104 || method < 1 || method > 5) return 1;

  CompressionMethod& entry = compressionMethodTable[method - 1];
  if ((entry.stateFlags & kLoaded) == 0) {
    binDirectory = binDir;  // where the loader looks first
    reportText = report;
    const int loaded = entry.load(entry, 0, nullptr);
    reportText = nullptr;
    if (loaded < 0) {
      entry.stateFlags |= kLoadFailed;
      return 0;
    }
    entry.stateFlags |= kLoaded;
  }
  std::uint8_t saved[65536];  // the envelope, on the stack: no allocation per block
  const std::size_t envelope = static_cast<std::size_t>(length) + 8;
  std::memcpy(saved, block, envelope);
  std::size_t produced = blockSize;
  if (entry.decompress(block, &produced, saved + 8, static_cast<std::size_t>(length)) == 0 && produced == blockSize)
    return 1;
  std::memcpy(block, saved, envelope);  // only the envelope is restored
  return 1;
}

}  // namespace compression
