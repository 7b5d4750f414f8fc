// gendb: writes a test database. See --help.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "gendb.h"

namespace {

void Usage() {
  std::puts(
      "usage: gendb [options] FILE\n"
      "  --seed N          content seed (default 1)\n"
      "  --code N          block size code 1..5 (default 2: 8192-byte blocks)\n"
      "  --order big|little  byte order (default big)\n"
      "  --blocks N        last block number (default 2000)\n"
      "  --free F          share of free blocks, 0..1 (default 0.1)\n"
      "  --sparse          leave free blocks as holes\n"
      "  --converted       write the image a conversion from the other order must give\n"
      "  --mix K=W,...     weights of block kinds: other, data, gdir, pointer, mirror, loosebig, badoffset\n"
      "  --compress F      share of blocks stored compressed (methods zlib, zstd, lz4, deflate)\n"
      "  --key HEX --keyid ID  encrypt with this database key (16, 24 or 32 bytes)\n"
      "  --volumes N       further volume files (ORVA-0001.VOL ...), placed in turn in the main file's\n"
      "                    directory and each of --volume-dirs\n"
      "  --volume-dirs D,...  additional volume directories (relative ones from the main file's; each\n"
      "                    must exist), stored in the volume info block's list");
}

std::vector<std::string> SplitList(const std::string& text) {
  std::vector<std::string> items;
  for (std::size_t i = 0; i <= text.size();) {
    std::size_t comma = text.find(',', i);
    if (comma == std::string::npos) comma = text.size();
    if (comma > i) items.push_back(text.substr(i, comma - i));
    i = comma + 1;
  }
  return items;
}

bool ParseMix(const char* text, gendb::Mix& mix) {
  mix = gendb::Mix{0, 0, 0, 0, 0, 0, 0};
  std::string s = text;
  std::size_t i = 0;
  while (i < s.size()) {
    std::size_t comma = s.find(',', i);
    if (comma == std::string::npos) comma = s.size();
    std::string item = s.substr(i, comma - i);
    std::size_t eq = item.find('=');
    if (eq == std::string::npos) return false;
    std::string name = item.substr(0, eq);
    unsigned w = static_cast<unsigned>(std::strtoul(item.c_str() + eq + 1, nullptr, 10));
    if (name == "other") mix.other = w;
    else if (name == "data") mix.data = w;
    else if (name == "gdir") mix.gdir = w;
    else if (name == "pointer") mix.pointer = w;
    else if (name == "mirror") mix.mirror = w;
    else if (name == "loosebig") mix.looseBig = w;
    else if (name == "badoffset") mix.badOffset = w;
    else return false;
    i = comma + 1;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  gendb::Params p;
  std::string out;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    auto value = [&]() -> const char* {
      if (i + 1 >= argc) {
        Usage();
        std::exit(2);
      }
      return argv[++i];
    };
    if (a == "--seed") p.seed = std::strtoull(value(), nullptr, 10);
    else if (a == "--code") p.sizeCode = static_cast<std::uint32_t>(std::strtoul(value(), nullptr, 10));
    else if (a == "--order") p.bigEndian = std::strcmp(value(), "little") != 0;
    else if (a == "--blocks") p.lastBlock = static_cast<std::uint32_t>(std::strtoul(value(), nullptr, 10));
    else if (a == "--free") p.freeShare = std::strtod(value(), nullptr);
    else if (a == "--sparse") p.sparse = true;
    else if (a == "--converted") p.converted = true;
    else if (a == "--compress") p.compressShare = std::strtod(value(), nullptr);
    else if (a == "--keyid") p.keyId = value();
    else if (a == "--key") {
      std::string hex = value();
      p.databaseKey.clear();
      for (std::size_t k = 0; k + 1 < hex.size(); k += 2)
        p.databaseKey.push_back(static_cast<std::uint8_t>(std::strtoul(hex.substr(k, 2).c_str(), nullptr, 16)));
    } else if (a == "--mix") {
      if (!ParseMix(value(), p.mix)) {
        Usage();
        return 2;
      }
    } else if (a == "--volumes") {
      p.volumeSet.volumes = static_cast<unsigned>(std::strtoul(value(), nullptr, 10));
    } else if (a == "--volume-dirs") {
      p.volumeSet.directories.clear();
      for (std::string dir : SplitList(value())) p.volumeSet.directories.push_back(dir.back() == '/' ? dir : dir + "/");
      p.volumeSet.storedList = p.volumeSet.directories;
    } else if (a == "--help" || a == "-h") {
      Usage();
      return 0;
    } else if (!a.empty() && a[0] == '-') {
      Usage();
      return 2;
    } else {
      out = a;
    }
  }
  if (out.empty()) {
    Usage();
    return 2;
  }
  for (unsigned v = 0; v < p.volumeSet.volumes; ++v)
    p.volumeSet.placement.push_back(v % static_cast<unsigned>(p.volumeSet.directories.size() + 1));
  std::string error = gendb::GenerateDatabase(p, out);
  if (!error.empty()) {
    std::fprintf(stderr, "gendb: %s\n", error.c_str());
    return 1;
  }
  return 0;
}
