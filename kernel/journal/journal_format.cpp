#include "journal_format.h"

#include "block_undo.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include <algorithm>
#include <cstring>

namespace bt::journal {

namespace {
constexpr std::uint64_t kPrime1 = 11400714785074694791ull, kPrime2 = 14029467366897019727ull,
                        kPrime3 = 1609587929392839161ull, kPrime5 = 2870177450012600261ull;
constexpr char kHeaderMagic[8] = {'B', 'T', 'J', 'O', 'U', 'R', 'N', 'L'};
constexpr char kCommitMagic[8] = {'B', 'T', 'C', 'O', 'M', 'M', 'I', 'T'};
constexpr char kRecordMagic[8] = {'B', 'T', 'R', 'E', 'C', 'O', 'R', 'D'};
constexpr char kMarkMagic[8] = {'B', 'T', 'R', 'U', 'N', 'M', 'R', 'K'};

std::uint64_t Rotl(std::uint64_t v, int n) { return v << n | v >> (64 - n); }
std::uint64_t Round(std::uint64_t lane, std::uint64_t word) { return Rotl(lane + word * kPrime2, 31) * kPrime1; }

// Appends fields in order.
struct Writer {
  std::vector<std::uint8_t> bytes;
  void U16(std::uint16_t v) {
    std::uint8_t b[2];
    StoreLE16(b, v);
    Raw(b, 2);
  }
  void U32(std::uint32_t v) {
    std::uint8_t b[4];
    StoreLE32(b, v);
    Raw(b, 4);
  }
  void U64(std::uint64_t v) {
    std::uint8_t b[8];
    StoreLE64(b, v);
    Raw(b, 8);
  }
  void Raw(const void* p, std::size_t n) {
    const auto* q = static_cast<const std::uint8_t*>(p);
    bytes.insert(bytes.end(), q, q + n);
  }
  void Text(const std::string& s) {
    U16(static_cast<std::uint16_t>(s.size()));
    Raw(s.data(), s.size());
  }
};

// Takes fields in order; once a field would run past the end, every later one fails too.
struct Reader {
  const std::uint8_t* p;
  std::size_t size, at = 0;
  bool ok = true;
  const std::uint8_t* Take(std::size_t n) {
    if (!ok || n > size - at) {
      ok = false;
      return nullptr;
    }
    at += n;
    return p + at - n;
  }
  std::uint16_t U16() {
    const std::uint8_t* q = Take(2);
    return q == nullptr ? 0 : LoadLE16(q);
  }
  std::uint32_t U32() {
    const std::uint8_t* q = Take(4);
    return q == nullptr ? 0 : LoadLE32(q);
  }
  std::uint64_t U64() {
    const std::uint8_t* q = Take(8);
    return q == nullptr ? 0 : LoadLE64(q);
  }
  std::string Text() {
    const std::uint16_t n = U16();
    const std::uint8_t* q = Take(n);
    return q == nullptr ? std::string() : std::string(reinterpret_cast<const char*>(q), n);
  }
  bool Magic(const char (&magic)[8]) {
    const std::uint8_t* q = Take(8);
    return q != nullptr && std::memcmp(q, magic, 8) == 0;
  }
};
}  // namespace

Checksum::Checksum(std::uint64_t seed)
    : lanes_{seed + kPrime1 + kPrime2, seed + kPrime2, seed, seed - kPrime1}, pending_{} {}

void Checksum::Add(const std::uint8_t* bytes, std::size_t size) {
  total_ += size;
  if (pendingSize_ != 0) {
    const std::size_t n = std::min(size, sizeof pending_ - pendingSize_);
    std::memcpy(pending_ + pendingSize_, bytes, n);
    pendingSize_ += n, bytes += n, size -= n;
    if (pendingSize_ < sizeof pending_) return;
    for (int i = 0; i < 4; ++i) lanes_[i] = Round(lanes_[i], LoadLE64(pending_ + 8 * i));
    pendingSize_ = 0;
  }
  for (; size >= 32; bytes += 32, size -= 32)
    for (int i = 0; i < 4; ++i) lanes_[i] = Round(lanes_[i], LoadLE64(bytes + 8 * i));
  if (size != 0) std::memcpy(pending_, bytes, size);
  pendingSize_ = size;
}

std::uint64_t Checksum::Value() const {
  std::uint64_t h = Rotl(lanes_[0], 1) + Rotl(lanes_[1], 7) + Rotl(lanes_[2], 12) + Rotl(lanes_[3], 18);
  for (std::uint64_t lane : lanes_) h = (h ^ Round(0, lane)) * kPrime1 + kPrime3;
  h += total_;
  for (std::size_t i = 0; i < pendingSize_; ++i) h = Rotl(h ^ pending_[i] * kPrime5, 11) * kPrime1;
  h ^= h >> 33;
  h *= kPrime2;
  h ^= h >> 29;
  h *= kPrime3;
  return h ^ h >> 32;
}

std::uint64_t ChecksumOf(const std::uint8_t* bytes, std::size_t size) {
  Checksum sum;
  sum.Add(bytes, size);
  return sum.Value();
}

std::uint64_t RecordsStart(const Header& header) {
  const std::uint64_t end = kTableOffset + std::uint64_t{2} * header.tableBlocks;
  return (end + kRecordAlignment - 1) / kRecordAlignment * kRecordAlignment;
}

namespace {

constexpr std::uint64_t kStep = 0x9E3779B97F4A7C15u;
constexpr std::uint64_t kPlace = 0xD6E8FEB86659FD93u;  // odd
constexpr std::uint32_t kMixFactors[2] = {0x85EBCA6Bu, 0xC2B2AE35u};

// Word i of a block as the fingerprint adds it, from version 13: its place folded in, its halves
// folded together, then each half mixed by a bijection that is not linear (two rounds of a shift
// folded in and a multiplication). So a change of any bits of a word gives the sum a change that
// looks random, and equal words in other places count as unrelated values: no pattern of changes
// in a block cancels out but by chance. Before, words were added as they were: the top bits of
// two words of a lane changed together added 2^64 to the sum, that is nothing, and equal words
// moved by as many places either way left it as it was. (With one multiplication, a change of the
// top bit alone before it came out as one of two values, and four words of a lane could cancel.)
inline std::uint32_t MixedHalf(std::uint32_t h) {
  h ^= h >> 16;
  h *= kMixFactors[0];
  h ^= h >> 13;
  h *= kMixFactors[1];
  return h ^ h >> 16;
}
inline std::uint64_t Mixed(std::uint64_t w, std::uint64_t i) {
  w ^= (i + 1) * kPlace;
  w ^= w >> 32;
  return std::uint64_t{MixedHalf(static_cast<std::uint32_t>(w >> 32))} << 32 | MixedHalf(static_cast<std::uint32_t>(w));
}

// Fingerprint's sums over the words of each lane, and of their running sums, in steps of 32 bytes
// from the block's start (word i goes to lane i % 4), each word mixed or not, the first being word
// first of the block; returns the bytes taken.
template <bool kMix>
std::size_t LaneSums(const std::uint8_t* block, std::size_t size, std::uint64_t sums[4], std::uint64_t runs[4],
                     std::uint64_t first) {
  std::size_t at = 0;
  for (; at + 32 <= size; at += 32)
    for (std::size_t l = 0; l < 4; ++l) {
      const std::uint64_t w = LoadLE64(block + at + 8 * l);
      sums[l] += kMix ? Mixed(w, first + at / 8 + l) : w;
      runs[l] += sums[l];
    }
  return at;
}

#if defined(__x86_64__)
// The same from the block's first word, the four lanes in one register (little-endian words: the
// processor's own order here).
template <bool kMix>
__attribute__((target("avx2"))) std::size_t LaneSumsByQuads(const std::uint8_t* block, std::size_t size,
                                                            std::uint64_t sums[4], std::uint64_t runs[4]) {
  __m256i s = _mm256_setzero_si256(), r = _mm256_setzero_si256();
  __m256i place = _mm256_setr_epi64x(static_cast<long long>(kPlace), static_cast<long long>(2 * kPlace),
                                     static_cast<long long>(3 * kPlace), static_cast<long long>(4 * kPlace));
  const __m256i step = _mm256_set1_epi64x(static_cast<long long>(4 * kPlace));
  std::size_t at = 0;
  for (; at + 32 <= size; at += 32) {
    __m256i w = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(block + at));
    if constexpr (kMix) {
      w = _mm256_xor_si256(w, place);
      place = _mm256_add_epi64(place, step);
      w = _mm256_xor_si256(w, _mm256_srli_epi64(w, 32));
      w = _mm256_xor_si256(w, _mm256_srli_epi32(w, 16));
      w = _mm256_mullo_epi32(w, _mm256_set1_epi32(static_cast<int>(kMixFactors[0])));
      w = _mm256_xor_si256(w, _mm256_srli_epi32(w, 13));
      w = _mm256_mullo_epi32(w, _mm256_set1_epi32(static_cast<int>(kMixFactors[1])));
      w = _mm256_xor_si256(w, _mm256_srli_epi32(w, 16));
    }
    s = _mm256_add_epi64(s, w);
    r = _mm256_add_epi64(r, s);
  }
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(sums), s);
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(runs), r);
  return at;
}
#endif

}  // namespace

std::uint16_t Fingerprint(const std::uint8_t* block, std::size_t size, std::uint32_t version) {
  // Each word i (mixed) times a multiplier of its own place, kStep * (2i + 1) (odd, so no change of
  // a word is lost), summed in four lanes (word i in lane i % 4). The bytes after the last whole 32
  // are taken as one more line, with zeros after them (the size, mixed in at the end, tells them
  // apart); before version 13, one at a time. Over the words 4j + l of lane l, j < m, that sum is
  // kStep times 8 * sum(j * w) + (2l + 1) * sum(w), and sum(j * w) = m * sum(w) - (the sum of the
  // running sums of w): the words are only added up (sums modulo 2^64 are exact).
  std::uint64_t sums[4] = {0, 0, 0, 0}, runs[4] = {0, 0, 0, 0};
  const bool mix = version >= kMixedFingerprintVersion;
#if defined(__x86_64__)
  static const bool byQuads = __builtin_cpu_supports("avx2");
  std::size_t at = byQuads ? (mix ? LaneSumsByQuads<true> : LaneSumsByQuads<false>)(block, size, sums, runs)
                           : (mix ? LaneSums<true> : LaneSums<false>)(block, size, sums, runs, 0);
#else
  std::size_t at = (mix ? LaneSums<true> : LaneSums<false>)(block, size, sums, runs, 0);
#endif
  std::uint64_t m = at / 32;
  if (mix && at < size) {
    std::uint8_t last[32] = {};
    std::memcpy(last, block + at, size - at);
    LaneSums<true>(last, sizeof last, sums, runs, at / 8);
    at = size;
    ++m;
  }
  std::uint64_t lanes[4];
  for (std::size_t l = 0; l < 4; ++l) lanes[l] = kStep * (8 * (m * sums[l] - runs[l]) + (2 * l + 1) * sums[l]);
  for (; at < size; ++at) lanes[at % 4] += std::uint64_t{block[at]} * (kStep * (2 * at + 1));
  std::uint64_t h = size;
  for (const std::uint64_t lane : lanes) {
    h = (h ^ lane) * kPrime1 + kPrime3;
    h ^= h >> 29;
  }
  h ^= h >> 32;
  const auto f = static_cast<std::uint16_t>(h ^ h >> 16);
  return f == 0 ? 1 : f;
}

std::vector<std::uint8_t> EncodeHeader(const Header& header) {
  Writer w;
  w.Raw(kHeaderMagic, 8);
  w.U32(kVersion);
  w.U64(header.runId);
  w.U32(header.verbose ? 1 : 0);
  w.Raw(header.label, kLabelCopyBytes);
  w.Text(header.mainFile);
  w.Text(header.mainDirectory);
  w.Text(header.primaryDirectory);
  w.U16(static_cast<std::uint16_t>(header.directories.size()));
  for (const std::string& d : header.directories) w.Text(d);
  w.U16(static_cast<std::uint16_t>(header.volumes.size()));
  for (const VolumeRecord& v : header.volumes) {
    w.U16(v.directory);
    w.U32(v.firstBlock);
    w.U64(v.identity.device);
    w.U64(v.identity.index);
    w.U64(v.size);
  }
  w.U64(header.mainFileSize);
  w.Text(header.lockPath);
  w.U32(header.keyChecked ? 1 : 0);
  w.U64(header.keyCheck);
  w.U32(header.tableBlocks);
  w.U64(header.lockIdentity.device);
  w.U64(header.lockIdentity.index);
  w.U64(header.lockChanged);
  w.U64(ChecksumOf(w.bytes.data(), w.bytes.size()));
  return w.bytes;
}

bool DecodeHeader(const std::uint8_t* bytes, std::size_t size, Header& header, std::string& why) {
  Reader r{bytes, size};
  if (!r.Magic(kHeaderMagic)) {
    why = "it does not begin as a journal does";
    return false;
  }
  const std::uint32_t version = r.U32();
  if (version < kOldestVersion || version > kVersion) {
    // A version far past this one is no version at all: a damaged header.
    const bool known = version != 0 && version <= kVersion + 1000;
    why = known ? std::string("it was written by ") + (version < kOldestVersion ? "an earlier" : "a later") +
                      " version of byteturn (journal version " + std::to_string(version) +
                      "): finish the run with the byteturn-recover of that version"
                : "it was written by another version of byteturn";
    return false;
  }
  header.version = version;
  header.runId = r.U64();
  header.verbose = r.U32() != 0;
  if (const std::uint8_t* label = r.Take(kLabelCopyBytes)) std::memcpy(header.label, label, kLabelCopyBytes);
  header.mainFile = r.Text();
  header.mainDirectory = r.Text();
  header.primaryDirectory = r.Text();
  header.directories.resize(r.ok ? r.U16() : 0);
  for (std::string& d : header.directories) d = r.Text();
  header.volumes.resize(r.ok ? r.U16() : 0);
  for (VolumeRecord& v : header.volumes) {
    v.directory = r.U16();
    v.firstBlock = r.U32();
    v.identity.device = r.U64();
    v.identity.index = r.U64();
    if (version >= 6) v.size = r.U64();
  }
  header.mainFileSize = r.U64();
  header.lockPath = r.Text();
  if (version >= 6) {
    header.keyChecked = r.U32() != 0;
    header.keyCheck = r.U64();
    header.tableBlocks = r.U32();
  }
  if (version >= 11) {
    header.lockIdentity.device = r.U64();
    header.lockIdentity.index = r.U64();
    header.lockChanged = r.U64();
  }
  const std::size_t content = r.at;
  if (!r.ok || r.U64() != ChecksumOf(bytes, content) || !r.ok || header.volumes.empty()) {
    why = "its header is damaged";
    return false;
  }
  return true;
}

constexpr std::uint32_t kCompleteBit = 0x80000000u, kOtherFailedBit = 0x40000000u;

void EncodeCommit(const Commit& commit, std::uint8_t* sector) {
  Writer w;
  w.Raw(kCommitMagic, 8);
  w.U64(commit.runId);
  w.U64(commit.number);
  for (const RecordPlace& r : commit.records) {
    w.U64(r.offset);
    w.U64(r.size);
    w.U64(r.checksum);
  }
  w.U32(commit.open | (commit.complete ? kCompleteBit : 0) | (commit.otherFailed ? kOtherFailedBit : 0));
  w.U64(ChecksumOf(w.bytes.data(), w.bytes.size()));
  w.bytes.resize(kCommitBytes);
  std::memcpy(sector, w.bytes.data(), kCommitBytes);
}

bool DecodeCommit(const std::uint8_t* sector, Commit& commit, std::uint32_t version) {
  Reader r{sector, kCommitBytes};
  if (!r.Magic(kCommitMagic)) return false;
  commit = Commit{};
  commit.runId = r.U64();
  commit.number = r.U64();
  for (std::uint32_t k = 0; k < (version >= 9 ? kMostOpenRecords : 1); ++k) {
    commit.records[k].offset = r.U64();
    commit.records[k].size = r.U64();
    commit.records[k].checksum = r.U64();
  }
  if (version >= 9) commit.open = r.U32();
  if (version >= kCompletionVersion) {
    commit.complete = (commit.open & kCompleteBit) != 0;
    commit.open &= ~kCompleteBit;
  }
  if (version >= kFailedCommitVersion) {
    commit.otherFailed = (commit.open & kOtherFailedBit) != 0;
    commit.open &= ~kOtherFailedBit;
  }
  const std::size_t content = r.at;
  return r.U64() == ChecksumOf(sector, content) && r.ok && commit.open >= 1 && commit.open <= kMostOpenRecords &&
         commit.open <= std::max<std::uint64_t>(commit.number, 1);
}

bool EncodeMark(const Mark& mark, std::uint8_t* sector) {
  Writer w;
  w.Raw(kMarkMagic, 8);
  w.U32(kMarkVersion);
  w.U64(mark.runId);
  w.U64(mark.originalSize);
  w.U64(mark.group);
  if (mark.journalPath.size() > kSectorBytes) return false;
  w.Text(mark.journalPath);
  w.U64(ChecksumOf(w.bytes.data(), w.bytes.size()));
  if (w.bytes.size() > kSectorBytes) return false;
  w.bytes.resize(kSectorBytes);
  std::memcpy(sector, w.bytes.data(), kSectorBytes);
  return true;
}

bool DecodeMark(const std::uint8_t* bytes, std::uint64_t fileSize, Mark& mark) {
  bool found = false;
  for (int s = 0; s < 2; ++s) {
    Reader r{bytes + kSectorBytes * s, kSectorBytes};
    Mark m;
    if (!r.Magic(kMarkMagic) || r.U32() != kMarkVersion) continue;
    m.runId = r.U64();
    m.originalSize = r.U64();
    m.group = r.U64();
    m.journalPath = r.Text();
    const std::size_t content = r.at;
    if (r.U64() != ChecksumOf(bytes + kSectorBytes * s, content) || !r.ok || m.originalSize + kMarkBytes != fileSize)
      continue;
    if (!found || m.group > mark.group) mark = m;
    found = true;
  }
  return found;
}

std::vector<std::uint8_t> EncodeRecordHead(const RecordHead& head) {
  Writer w;
  w.Raw(kRecordMagic, 8);
  w.U64(head.runId);
  w.U64(head.number);
  w.U32(head.blockSize);
  w.U32(head.resumeBlock);
  w.U32(head.maps.current);
  w.U32(static_cast<std::uint32_t>(head.maps.listed.size()));
  for (std::uint32_t m : head.maps.listed) w.U32(m);
  w.U32(static_cast<std::uint32_t>(head.entries.size()));
  for (const Entry& e : head.entries) {
    w.U32(e.volume);
    w.U32(e.blocks);
    w.U64(e.position);
  }
  w.U64(head.sampleModulus);
  for (const std::vector<Check>* checks : {&head.landed, &head.sample}) {
    w.U32(static_cast<std::uint32_t>(checks->size()));
    for (const Check& c : *checks) {
      w.U32(c.volume);
      w.U64(c.position);
      w.U64(c.before);
      w.U64(c.after);
    }
  }
  return w.bytes;
}

bool DecodeRecordHead(const std::uint8_t* bytes, std::size_t size, RecordHead& head, std::size_t& undoOffset) {
  Reader r{bytes, size};
  if (!r.Magic(kRecordMagic)) return false;
  head.runId = r.U64();
  head.number = r.U64();
  head.blockSize = r.U32();
  head.resumeBlock = r.U32();
  head.maps.current = r.U32();
  // Every count is checked against the bytes left before anything is sized by it.
  const std::uint32_t listed = r.U32();
  if (!r.ok || listed > (size - r.at) / 4) return false;
  head.maps.listed.resize(listed);
  for (std::uint32_t& m : head.maps.listed) m = r.U32();
  const std::uint32_t entries = r.U32();
  if (!r.ok || entries > (size - r.at) / 16) return false;
  head.entries.resize(entries);
  for (Entry& e : head.entries) {
    e.volume = r.U32();
    e.blocks = r.U32();
    e.position = r.U64();
  }
  head.sampleModulus = r.U64();
  for (std::vector<Check>* checks : {&head.landed, &head.sample}) {
    const std::uint32_t n = r.U32();
    if (!r.ok || n > (size - r.at) / 28) return false;
    checks->resize(n);
    for (Check& c : *checks) {
      c.volume = r.U32();
      c.position = r.U64();
      c.before = r.U64();
      c.after = r.U64();
    }
  }
  if (!r.ok || head.blockSize < 4096 || head.blockSize > 65536 || head.blockSize % 64 != 0) return false;
  undoOffset = r.at;
  // Each block's undo takes at least its bitmap, so the walk ends within size / 64 blocks.
  std::size_t at = r.at;
  for (const Entry& e : head.entries)
    for (std::uint32_t k = 0; k < e.blocks; ++k) {
      const std::size_t n = BlockUndoSize(bytes + at, size - at, head.blockSize);
      if (n == 0) return false;
      at += n;
    }
  return at == size;
}

bool ReadJournal(const ReadFunction& read, std::uint64_t fileSize, Found& found, std::string& why) {
  std::vector<std::uint8_t> header(static_cast<std::size_t>(std::min(fileSize, kHeaderBytes)));
  if (!read(0, header.data(), header.size()) || !DecodeHeader(header.data(), header.size(), found.header, why)) {
    if (why.empty()) why = "its header cannot be read";
    return false;
  }
  Commit commits[2];
  bool whole[2];
  for (int s = 0; s < 2; ++s) {
    std::uint8_t sector[kCommitBytes];
    whole[s] = fileSize >= kCommitOffset + kCommitBytes * (s + 1) && read(kCommitOffset + kCommitBytes * s, sector, kCommitBytes) &&
               DecodeCommit(sector, commits[s], found.header.version) && commits[s].runId == found.header.runId;
  }
  // A damaged sector is taken for one whose write failed only where the other says so.
  if (whole[0] && whole[1])
    found.commit = commits[0].number >= commits[1].number ? commits[0] : commits[1];
  else if (whole[0] != whole[1] && commits[whole[0] ? 0 : 1].otherFailed)
    found.commit = commits[whole[0] ? 0 : 1];
  else {
    why = "a commit sector is damaged";
    return false;
  }
  found.records.clear();
  if (found.commit.number == 0) return true;
  const Commit& c = found.commit;
  for (std::uint32_t k = 0; k < c.open; ++k) {
    const RecordPlace& p = c.records[k];
    const std::string which = k == 0 ? "its last record" : "the record before its last";
    if (p.offset < RecordsStart(found.header) || p.offset > fileSize || p.size > fileSize - p.offset) {
      why = which + " is cut short";
      return false;
    }
    Record& record = found.records.emplace_back();
    record.bytes.resize(static_cast<std::size_t>(p.size));
    if (!read(p.offset, record.bytes.data(), record.bytes.size()) ||
        ChecksumOf(record.bytes.data(), record.bytes.size()) != p.checksum ||
        !DecodeRecordHead(record.bytes.data(), record.bytes.size(), record.head, record.undoOffset) ||
        record.head.runId != found.header.runId || record.head.number != c.number - k ||
        record.head.blockSize != found.records.front().head.blockSize) {
      why = which + " is damaged";
      return false;
    }
  }
  return true;
}

}  // namespace bt::journal
