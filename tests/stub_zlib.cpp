// A zlib stand-in that lacks one listed symbol (deflateBound): the loader must refuse it.
extern "C" {
int compressBound() { return 0; }
int compress() { return -2; }
int uncompress() { return -2; }
int deflateInit2_() { return -2; }
int deflate() { return -2; }
int deflateEnd() { return -2; }
int inflateInit2_() { return -2; }
int inflate() { return -2; }
int inflateEnd() { return -2; }
}
