// Compressed streams for the generator, made with the system's libraries opened at run time.
#include <cstring>

#include "gendb.h"
#include "platform.h"

namespace gendb {

namespace {
using CompressFn = int (*)(unsigned char*, unsigned long*, const unsigned char*, unsigned long);
using ZstdCompressFn = std::size_t (*)(void*, std::size_t, const void*, std::size_t, int);
using ZstdIsErrorFn = unsigned (*)(std::size_t);
using Lz4CompressFn = int (*)(const char*, char*, int, int);

void* Find(const char* base, const char* symbol) {
  void* library = platform::LibraryOpen(platform::SharedLibraryFileName(base));
  return library == nullptr ? nullptr : platform::LibrarySymbol(library, symbol);
}
}  // namespace

std::size_t CompressStream(int method, const std::uint8_t* source, std::size_t size, std::uint8_t* destination,
                           std::size_t capacity) {
  if (method == 1 || method == 5) {
    static auto compress = reinterpret_cast<CompressFn>(Find("zlib1", "compress"));
    unsigned long length = capacity;
    if (compress == nullptr || compress(destination, &length, source, size) != 0) return 0;
    return length;
  }
  if (method == 2) {
    static auto compress = reinterpret_cast<ZstdCompressFn>(Find("zstd", "ZSTD_compress"));
    static auto isError = reinterpret_cast<ZstdIsErrorFn>(Find("zstd", "ZSTD_isError"));
    if (compress == nullptr || isError == nullptr) return 0;
    std::size_t r = compress(destination, capacity, source, size, 3);
    return isError(r) ? 0 : r;
  }
  if (method == 3) {
    static auto compress = reinterpret_cast<Lz4CompressFn>(Find("lz4", "LZ4_compress_default"));
    if (compress == nullptr) return 0;
    int r = compress(reinterpret_cast<const char*>(source), reinterpret_cast<char*>(destination),
                     static_cast<int>(size), static_cast<int>(capacity));
    return r > 0 ? static_cast<std::size_t>(r) : 0;
  }
  if (method == 4 && size <= capacity) {  // "null": the bytes as they are
    std::memcpy(destination, source, size);
    return size;
  }
  return 0;
}

}  // namespace gendb
