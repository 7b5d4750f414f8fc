// Stand-ins for the compression libraries, each lacking one listed symbol, so that the loader
// must refuse them. The zlib one depends on a library that does define the missing symbol: a
// symbol counts only when the named library itself defines it.
extern "C" {
#define STUB(name) \
  int name() { return -2; }
#if defined(STUB_ZLIB)
STUB(compressBound) STUB(compress) STUB(uncompress) STUB(deflateInit2_) STUB(deflate) STUB(deflateEnd)
STUB(inflateInit2_) STUB(inflate) STUB(inflateEnd)  // no deflateBound
#elif defined(STUB_DEPENDENCY)
STUB(deflateBound)
#elif defined(STUB_ZSTD)
STUB(ZSTD_compressBound) STUB(ZSTD_isError) STUB(ZSTD_compress) STUB(ZSTD_decompress) STUB(ZSTD_createCStream)
STUB(ZSTD_freeCStream) STUB(ZSTD_initCStream) STUB(ZSTD_resetCStream) STUB(ZSTD_compressStream)
STUB(ZSTD_flushStream) STUB(ZSTD_endStream) STUB(ZSTD_createDStream) STUB(ZSTD_freeDStream)
STUB(ZSTD_initDStream) STUB(ZSTD_resetDStream) STUB(ZSTD_decompressStream)  // no ZSTD_getErrorName
#elif defined(STUB_LZ4)
STUB(LZ4_compressBound) STUB(LZ4_compress_default) STUB(LZ4_decompress_safe) STUB(LZ4_createStream)
STUB(LZ4_freeStream) STUB(LZ4_resetStream) STUB(LZ4_compress_fast_continue) STUB(LZ4_createStreamDecode)
STUB(LZ4_freeStreamDecode)  // no LZ4_decompress_safe_continue
#endif
}
