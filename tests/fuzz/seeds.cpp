// Writes seed inputs for the fuzz targets, cut from databases and keyfiles that the generator
// makes: seeds DIR writes DIR/<target>/seed-N for every target.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "gendb.h"

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<std::uint8_t>;

Bytes Read(const fs::path& path, std::uint64_t offset = 0, std::size_t size = SIZE_MAX) {
  std::ifstream in(path, std::ios::binary);
  in.seekg(static_cast<std::streamoff>(offset));
  Bytes out;
  char c;
  while (out.size() < size && in.get(c)) out.push_back(static_cast<std::uint8_t>(c));
  return out;
}

void Write(const fs::path& dir, int& n, const Bytes& prefix, const Bytes& body) {
  fs::create_directories(dir);
  std::ofstream out(dir / ("seed-" + std::to_string(n++)), std::ios::binary);
  out.write(reinterpret_cast<const char*>(prefix.data()), static_cast<std::streamsize>(prefix.size()));
  out.write(reinterpret_cast<const char*>(body.data()), static_cast<std::streamsize>(body.size()));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: seeds DIR\n");
    return 2;
  }
  const fs::path out = argv[1], work = out / "work";
  fs::create_directories(work);
  int blocks = 0, labels = 0, keyfiles = 0, envelopes = 0, volumeInfos = 0;

  for (bool big : {true, false}) {
    gendb::Params p;
    p.seed = 5;
    p.bigEndian = big;
    p.lastBlock = 120;
    p.freeShare = 0;
    p.mix = gendb::Mix{1, 6, 2, 4, 1, 1, 1};
    p.compressShare = 0.3;
    p.methods = {1, 2, 3, 4, 5};
    const fs::path db = work / "rich.dat";
    if (!gendb::GenerateDatabase(p, db.string()).empty()) return 1;
    const std::uint8_t swap = big ? 1 : 0;
    for (std::uint32_t b = 1; b <= p.lastBlock; ++b) {
      const Bytes block = Read(db, std::uint64_t{b - 1} * 8192, 8192);
      const std::uint8_t type = block[4];
      const std::uint8_t selector = b == 1 ? 0x80 : b == 2 ? 0x40 : type == 8 ? 2 : type == 9 ? 3 : type == 2 ? 0xC0 : 7;
      Write(out / "block", blocks, {1, swap, selector}, block);
      if (type & 0x80) Write(out / "decompress", envelopes, {1, swap}, block);
    }
    Write(out / "label", labels, {0}, Read(db, 0, 4096));
    Write(out / "label", labels, {4}, Read(db, 0, 4096));
  }

  gendb::Params set;
  set.sizeCode = 1;
  set.lastBlock = 400;
  set.volumeSet.volumes = 2;
  set.volumeSet.directories = {"a/"};
  set.volumeSet.placement = {0, 1};
  set.volumeSet.storedList = {"a/", "b/"};
  fs::create_directories(work / "a");
  if (!gendb::GenerateDatabase(set, (work / "ORVA.DAT").string()).empty()) return 1;
  for (const std::string& file : gendb::DatabaseFiles(set, (work / "ORVA.DAT").string()))
    Write(out / "volume_info", volumeInfos, {0, 1, 0}, Read(file, file.ends_with("ORVA.DAT") ? 2 * 4096 : 0, 4096));
  Write(out / "label", labels, {2}, Read(work / "ORVA.DAT", 0, 4096));

  const Bytes key(32, 7);
  for (const char* version : {"1.0", "2.0"}) {
    const fs::path keyfile = work / "k.key";
    if (!gendb::WriteKeyfile(keyfile.string(), version, "k", "admin", "pw", key).empty()) return 1;
    Write(out / "keyfile", keyfiles, {1, 'k'}, Read(keyfile));
  }
  // Journals built by the target: one whole and as written, one with a byte of its newer commit
  // sector changed; and a file that only begins as a journal does.
  const Bytes journal = {0,    0x12, 0x34, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 3, 1, 2, 0, 1,
                         0x80, 2,    1,    0, 5, 1, 2, 0, 2, 0, 16, 1, 1, 1, 0, 1, 0, 0, 2, 1, 0};
  int journals = 0;
  Write(out / "journal", journals, {}, journal);
  Write(out / "journal", journals, journal, {0x00, 0x82, 0x10, 0x55});
  Write(out / "journal", journals, {1}, {'B', 'T', 'J', 'O', 'U', 'R', 'N', 'L', 1, 0, 0, 0});
  fs::remove_all(work);
  return 0;
}
