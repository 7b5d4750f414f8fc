// The journal's encodings, in the test program: the undo of a block puts it back over any torn
// write, an encrypted block's undo keeps none of its plaintext, and the checksum and the records
// tell every changed byte. (What the programs make of them: journal_test.cpp.)
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "aes_core.h"
#include "block_cipher.h"
#include "block_undo.h"
#include "byteorder.h"
#include "database.h"
#include "journal_format.h"

// The undo of a write puts the block back as it was over whatever a write lost, kept or torn at
// 512-byte boundaries leaves, and again over what an interrupted put-back left, or tells a sector
// that holds part of a write ended at any byte; a word whose fields the write reversed, within the
// word or across words, takes a byte, and each sector's first and last changed bytes tell its state.
TEST(Journal, AnUndoPutsBackTheBlockOverAnyTornWrite) {
  using bt::journal::Undone;
  using Format = bt::journal::UndoFormat;
  using bt::journal::Effort;
  std::mt19937_64 rng(7);
  const auto turned = [&](std::vector<std::uint8_t>& block, std::uint32_t w) {
    static const std::vector<std::vector<int>> orders = {
        {7, 6, 5, 4, 3, 2, 1, 0}, {3, 2, 1, 0, 7, 6, 5, 4}, {1, 0, 3, 2, 5, 4, 7, 6}, {0, 1, 2, 3, 7, 6, 5, 4},
        {1, 0, 2, 3, 4, 5, 7, 6}};
    const std::vector<int>& order = orders[rng() % orders.size()];
    std::uint8_t word[8];
    for (int k = 0; k < 8; ++k) word[k] = block[8 * w + static_cast<std::uint32_t>(order[k])];
    std::copy_n(word, 8, block.begin() + 8 * w);
  };
  for (std::uint32_t size : {4096u, 8192u, 65536u})
    for (unsigned share : {0u, 3u, 50u, 100u})  // percent of the words the write changes
      for (bool reversing : {true, false}) {  // fields reversed (some across two words), or any change
        SCOPED_TRACE(std::to_string(size) + " bytes, " + std::to_string(share) + "% changed" +
                     (reversing ? ", reversed" : ""));
        std::vector<std::uint8_t> before(size);
        for (auto& b : before) b = static_cast<std::uint8_t>(rng());
        std::vector<std::uint8_t> after = before;
        std::size_t changed = 0, sectors = 0;
        for (std::uint32_t w = 0, free = 0; w < size / 8; ++w) {  // free: the first byte no field took
          if (rng() % 100 >= share || 8 * w < free) continue;
          if (!reversing) {
            after[8 * w + rng() % 8] ^= 0x41;
            continue;
          }
          const std::uint32_t at = 8 * w + static_cast<std::uint32_t>(rng() % 8), length = std::vector<std::uint32_t>{2, 3, 4, 8}[rng() % 4];
          // (a field whose last byte begins a word would make that word's every byte end a span,
          // which tells a word stored)
          if (rng() % 2 == 0 || (at + length - 1) / 512 != at / 512 || (at + length - 1) % 8 == 0) {
            turned(after, w);
            free = 8 * w + 8;
          } else {
            std::reverse(after.begin() + at, after.begin() + at + length);
            free = at + length;
          }
        }
        for (std::uint32_t w = 0; w < size / 8; ++w)
          changed += !std::equal(before.begin() + 8 * w, before.begin() + 8 * w + 8, after.begin() + 8 * w);
        for (std::uint32_t s = 0; s < size; s += 512)
          sectors += !std::equal(before.begin() + s, before.begin() + s + 512, after.begin() + s);
        std::size_t quickSize = 0;
        for (const Effort effort : {Effort::kQuick, Effort::kSmallest}) {
          SCOPED_TRACE(effort == Effort::kQuick ? "quick" : "smallest");
          std::vector<std::uint8_t> undo(bt::journal::MaxUndoBytes(size));
          const std::size_t n = bt::journal::EncodeUndo(before.data(), after.data(), size, effort, undo.data());
          // The processor's vectors give what the portable encoder gives.
          std::vector<std::uint8_t> portable(undo.size());
          portable.resize(bt::journal::EncodeUndoWordByWord(before.data(), after.data(), size, effort, portable.data()));
          EXPECT_EQ(portable, std::vector<std::uint8_t>(undo.begin(), undo.begin() + static_cast<std::ptrdiff_t>(n)));
          const bool spans = reversing && effort == Effort::kSmallest;
          EXPECT_LE(n, size / 64 + changed + 3 * sectors + (spans ? 16 * sectors : 8 * changed));
          // Looking for spans across words makes the undo smaller where the write made them.
          if (effort == Effort::kQuick) quickSize = n;
          else if (spans && share != 0) EXPECT_LT(n, quickSize);
          else EXPECT_LE(n, quickSize);
          EXPECT_GE(n, size / 64 + changed + 3 * sectors);
          EXPECT_EQ(bt::journal::UndoSize(undo.data(), n, size, Format::kSpansAndEdges), n);
          EXPECT_EQ(bt::journal::UndoSize(undo.data(), n - 1, size, Format::kSpansAndEdges), 0u);
          for (int cut = 0; cut < 4; ++cut) {  // kept whole, lost whole, torn twice
            std::vector<std::uint8_t> torn = after;
            for (std::uint32_t sector = 0; sector < size / 512; ++sector)
              if (cut == 1 || (cut > 1 && rng() % 2))
                std::copy_n(before.begin() + 512 * sector, 512, torn.begin() + 512 * sector);
            const Undone put = torn != before ? Undone::kPutBack : Undone::kAsItWas;
            EXPECT_EQ(bt::journal::ApplyUndo(undo.data(), size, Format::kSpansAndEdges, torn.data()), put);
            EXPECT_EQ(torn, before) << "cut " << cut;
            // a second put-back changes nothing
            EXPECT_EQ(bt::journal::ApplyUndo(undo.data(), size, Format::kSpansAndEdges, torn.data()), Undone::kAsItWas);
          }
          // A write the system ended part way, at any byte, and a put-back ended so over the whole
          // write: the block is put back, or the sector that holds part of the write is told.
          std::size_t told = 0;
          // (every byte of the smallest block; in the others a tear every 97 or 997 bytes falls at as
          // varied offsets in a tenth of the time)
          for (std::uint32_t at = 1; at < size; at += size == 4096 ? 1 : size > 8192 ? 997 : 97)
            for (bool putBackTorn : {false, true}) {
              std::vector<std::uint8_t> torn = putBackTorn ? before : after;
              std::copy((putBackTorn ? after : before).begin() + at, (putBackTorn ? after : before).end(), torn.begin() + at);
              if (bt::journal::ApplyUndo(undo.data(), size, Format::kSpansAndEdges, torn.data()) == Undone::kTorn) ++told;
              else EXPECT_EQ(torn, before) << "ended at " << at << (putBackTorn ? ", put back" : "");
            }
          EXPECT_EQ(told != 0, share != 0) << told;
          // Written twice in a group: each sector holds either write or neither. The first write's
          // undo, then the second's, which names every word, give the block as it was.
          std::vector<std::uint8_t> again = after, whole(bt::journal::MaxUndoBytes(size)), mixed(size);
          for (std::uint32_t w = 0; w < size / 8; w += 3) turned(again, w);
          bt::journal::EncodeWholeUndo(before.data(), size, whole.data());
          const std::vector<std::uint8_t>* states[] = {&before, &after, &again};
          for (std::uint32_t sector = 0; sector < size / 512; ++sector)
            std::copy_n(states[rng() % 3]->begin() + 512 * sector, 512, mixed.begin() + 512 * sector);
          bt::journal::ApplyUndo(undo.data(), size, Format::kSpansAndEdges, mixed.data());
          bt::journal::ApplyUndo(whole.data(), size, Format::kFirstWord, mixed.data());
          EXPECT_EQ(mixed, before);
        }
      }
  // A word no spans explain is stored as it was; each run of words named ends a span; each sector
  // keeps where its first and last changed bytes lie in its first and last words named, and what
  // they were.
  std::vector<std::uint8_t> before(4096, 1), after(4096, 1), undo(bt::journal::MaxUndoBytes(4096));
  after[9] = 2, after[10] = 3, after[16] = 3, after[17] = 2, before[16] = 2, before[17] = 3, after[30] = 7;
  before[18] = after[18] = 5, before[19] = after[19] = 6, before[30] = 9;
  std::size_t n = bt::journal::EncodeUndo(before.data(), after.data(), 4096, Effort::kSmallest, undo.data());
  ASSERT_EQ(n, 4096 / 64 + 3 + 3 + 16);
  EXPECT_EQ(bt::journal::UndoSize(undo.data(), n, 4096, Format::kSpansAndEdges), n);
  const std::size_t codes = 4096 / 64;  // one per word named, then each sector's edges, then the words stored
  EXPECT_EQ(undo[codes], 0xFF);
  EXPECT_EQ(undo[codes + 1], 0xFE);  // its bytes 0 and 1 a span, the others each its own
  EXPECT_EQ(undo[codes + 2], 0xFF);
  EXPECT_EQ(undo[codes + 3], 0x61);  // bytes 9 and 30: byte 1 of word 1, byte 6 of word 3
  EXPECT_EQ(undo[codes + 4], 1);
  EXPECT_EQ(undo[codes + 5], 9);
  undo[codes + 3] = 0x69;  // an edge past its word
  EXPECT_EQ(bt::journal::UndoSize(undo.data(), n, 4096, Format::kSpansAndEdges), 0u);
  undo[codes + 3] = 0x61, undo[codes + 2] = 0x7F;  // the run's last word would not end a span
  EXPECT_EQ(bt::journal::UndoSize(undo.data(), n, 4096, Format::kSpansAndEdges), 0u);
  undo[codes + 2] = 0xFF, undo[codes + 1] = 0xFF;  // a word stored takes 8 bytes more
  EXPECT_EQ(bt::journal::UndoSize(undo.data(), n, 4096, Format::kSpansAndEdges), 0u);
  // Fields across two words, and across two sectors: only the latter's words are stored, with a
  // word whose every byte ends a field (the last of a field across two words), and a word changed
  // otherwise with the words whose fields reach it.
  before.assign(4096, 0), after.assign(4096, 0);
  for (std::size_t i = 0; i < 4096; ++i) before[i] = static_cast<std::uint8_t>(i * 13 + i / 256);
  after = before;
  for (const auto& [at, length] :
       {std::pair{0, 2}, {14, 4}, {20, 8}, {28, 2}, {44, 3}, {111, 2}, {206, 4}, {508, 8}, {600, 4}, {700, 4}})
    std::reverse(after.begin() + at, after.begin() + at + length);
  after[212] ^= 0x41;  // a word changed otherwise, which a field from the word before reaches into
  n = bt::journal::EncodeUndo(before.data(), after.data(), 4096, Effort::kSmallest, undo.data());
  EXPECT_EQ(n, 4096 / 64 + 13 + 2 * 3 + 8 * 5) << "words 0 to 3, 5, 13, 14, 25, 26, 63, 64, 75 and 87 named; 14, 25, "
                                                  "26, 63 and 64 stored";
  for (const std::vector<std::uint8_t>* found : {&after, &before}) {
    std::vector<std::uint8_t> block = *found;
    bt::journal::ApplyUndo(undo.data(), 4096, Format::kSpansAndEdges, block.data());
    EXPECT_EQ(block, before);
  }
  // A journal of the earlier format (kind 0) stored each sector's first word named only: its last
  // one, reversed, is turned back where the first tells the sector holds the write.
  std::vector<std::uint8_t> was(4096, 1), written(4096, 1), earlier(1 + 4096 / 64 + 2 + 8, 0);
  for (int k = 0; k < 8; ++k) {
    was[8 + k] = written[8 + 7 - k] = static_cast<std::uint8_t>(10 + k);
    was[24 + k] = written[24 + 7 - k] = static_cast<std::uint8_t>(20 + k);
  }
  earlier[1] = 0x0A;  // words 1 and 3
  earlier[1 + codes + 1] = 0xFF;
  std::copy_n(was.begin() + 8, 8, earlier.begin() + 1 + codes + 2);
  // An undo of an earlier format puts the written block back, and finds the block as it was so.
  const auto putsBack = [](const std::vector<std::uint8_t>& blockUndo, const std::vector<std::uint8_t>& wasBlock,
                           const std::vector<std::uint8_t>& writtenBlock) {
    EXPECT_EQ(bt::journal::BlockUndoSize(blockUndo.data(), blockUndo.size(), 4096), blockUndo.size());
    for (const std::vector<std::uint8_t>* found : {&writtenBlock, &wasBlock}) {
      std::vector<std::uint8_t> block = *found;
      EXPECT_EQ(bt::journal::ApplyBlockUndo(blockUndo.data(), 4096, 1, block.data()),
                found == &writtenBlock ? Undone::kPutBack : Undone::kAsItWas);
      EXPECT_EQ(block, wasBlock);
    }
  };
  putsBack(earlier, was, written);
  earlier[0] = 2;  // of this format, whose sector's last word must be stored
  EXPECT_EQ(bt::journal::BlockUndoSize(earlier.data(), earlier.size(), 4096), 0u);
  // One of the format before this (kind 4) stored each sector's first and last words named, and
  // turns the words between back where the first tells the sector holds the write.
  std::vector<std::uint8_t> spansWas(4096, 1), spansWritten(4096, 1), spans(1 + 4096 / 64 + 3 + 16, 0);
  spansWas[8] = 2, spansWritten[8] = 3, spansWas[24] = 4, spansWritten[24] = 5;
  for (int k = 0; k < 8; ++k) spansWas[16 + k] = spansWritten[23 - k] = static_cast<std::uint8_t>(10 + k);
  spans[0] = 4, spans[1] = 0x0E;  // words 1 to 3
  spans[1 + codes] = 0xFF, spans[1 + codes + 1] = 0x80, spans[1 + codes + 2] = 0xFF;
  std::copy_n(spansWas.begin() + 8, 8, spans.begin() + 1 + codes + 3);
  std::copy_n(spansWas.begin() + 24, 8, spans.begin() + 1 + codes + 11);
  putsBack(spans, spansWas, spansWritten);
  spans[0] = 6;  // of this format, which has each sector's edges too
  EXPECT_EQ(bt::journal::BlockUndoSize(spans.data(), spans.size(), 4096), 0u);
}

// An encrypted block's undo over its plaintext puts the block back over whatever a write lost,
// kept or torn at 512-byte boundaries leaves, and holds no byte of the plaintext: a block whose
// plaintext changed otherwise than in the order of its words' bytes takes the direct undo.
TEST(Journal, AnEncryptedBlocksUndoPutsItBackWithoutItsPlaintext) {
  using bt::journal::Undone;
  std::mt19937_64 rng(11);
  std::vector<std::uint8_t> key(32);
  for (auto& k : key) k = static_cast<std::uint8_t>(rng());
  crypto::AesSetEncryptKey(key.data(), 32, bt::encryptionKeySchedule);
  crypto::AesSetDecryptKey(key.data(), 32, bt::decryptionKeySchedule);
  bt::databaseKeyLoaded = bt::databaseEncrypted = true;
  const std::uint8_t marker[8] = {'p', 'l', 'a', 'i', 'n', 't', 'x', 't'};
  for (std::uint32_t size : {4096u, 8192u})
    for (bool reordered : {true, false}) {
      SCOPED_TRACE(std::to_string(size) + (reordered ? " bytes, fields reversed" : " bytes, a word changed"));
      bt::SetGeometry(size == 4096 ? 1 : 2);  // the block size the cipher takes
      ASSERT_EQ(bt::blockSize, size);
      const std::uint32_t b = 1000 + size;
      std::vector<std::uint8_t> plain(size);
      for (auto& x : plain) x = static_cast<std::uint8_t>(rng());
      std::copy_n(marker, 8, plain.begin() + 1024 + 8);
      std::vector<std::uint8_t> converted = plain;
      for (std::uint32_t w : {1u, 2u, 129u, 130u, 131u, 600u % (size / 8)})
        std::reverse(converted.begin() + 8 * w, converted.begin() + 8 * w + 8);
      for (const auto& [at, length] : {std::pair{30u, 4u}, {2036u, 8u}, {2061u, 2u}})  // fields across words
        std::reverse(converted.begin() + at, converted.begin() + at + length);
      // a field across two sectors, and a word changed otherwise: the turns leave their words
      if (size == 8192) std::reverse(converted.begin() + 4092, converted.begin() + 4100);
      if (!reordered) converted[8 * 131 + 3] ^= 0x40;
      std::vector<std::uint8_t> before(size), after(size), undo(bt::journal::MaxBlockUndoBytes(size));
      bt::EncryptDataBlock(plain.data(), before.data(), b);
      bt::EncryptDataBlock(converted.data(), after.data(), b);
      const std::size_t n =
          bt::journal::EncodeBlockUndo(before.data(), after.data(), size, b, false, bt::journal::Effort::kSmallest, undo.data());
      undo.resize(n);
      EXPECT_TRUE(bt::journal::NeedsKey(undo.data()));
      EXPECT_LT(n, size / 16) << "6 bytes per sector, the plaintext's turns, and pieces of ciphertext for what they leave";
      EXPECT_EQ(std::search(undo.begin(), undo.end(), marker, marker + 8), undo.end());
      EXPECT_EQ(bt::journal::BlockUndoSize(undo.data(), n, size), n);
      EXPECT_EQ(bt::journal::BlockUndoSize(undo.data(), n - 1, size), 0u);
      for (int cut = 0; cut < 6; ++cut) {  // kept whole, lost whole, torn four times
        std::vector<std::uint8_t> torn = after;
        for (std::uint32_t sector = 0; sector < size / 512; ++sector)
          if (cut == 1 || (cut > 1 && rng() % 2))
            std::copy_n(before.begin() + 512 * sector, 512, torn.begin() + 512 * sector);
        const Undone put = torn != before ? Undone::kPutBack : Undone::kAsItWas;
        EXPECT_EQ(bt::journal::ApplyBlockUndo(undo.data(), size, b, torn.data()), put) << "cut " << cut;
        EXPECT_EQ(torn, before) << "cut " << cut;
        EXPECT_EQ(bt::journal::ApplyBlockUndo(undo.data(), size, b, torn.data()), Undone::kAsItWas);
      }
      // A write ended part way inside a sector, and a put-back so over the write, at any byte: put
      // back, or told.
      std::size_t told = 0;
      for (std::uint32_t at = 1; at < size; at += size == 4096 ? 1 : 211)
        for (bool putBackTorn : {false, true}) {
          std::vector<std::uint8_t> torn = putBackTorn ? before : after;
          std::copy((putBackTorn ? after : before).begin() + at, (putBackTorn ? after : before).end(), torn.begin() + at);
          if (bt::journal::ApplyBlockUndo(undo.data(), size, b, torn.data()) == Undone::kTorn) ++told;
          else EXPECT_EQ(torn, before) << "ended at " << at << (putBackTorn ? ", put back" : "");
        }
      EXPECT_NE(told, 0u);
      if (!reordered || size != 4096) continue;
      // One of the earlier format (kind 5) kept each sector's first and last differing words, and
      // the 16 bytes before it as written.
      std::vector<std::uint8_t> earlier = {5, 0};
      std::vector<std::uint8_t> turns(bt::journal::MaxUndoBytes(size));
      for (std::uint32_t sector = 0; sector < size / 512; ++sector) {
        std::vector<std::uint32_t> differing;
        for (std::uint32_t w = 0; w < 64; ++w)
          if (!std::equal(before.begin() + 512 * sector + 8 * w, before.begin() + 512 * sector + 8 * w + 8,
                          after.begin() + 512 * sector + 8 * w))
            differing.push_back(w);
        if (differing.empty()) continue;
        earlier[1] = static_cast<std::uint8_t>(earlier[1] | 1u << sector);
        for (std::uint32_t w : {differing.front(), differing.back()}) {
          earlier.push_back(static_cast<std::uint8_t>(w));
          earlier.insert(earlier.end(), before.begin() + 512 * sector + 8 * w, before.begin() + 512 * sector + 8 * w + 8);
        }
        if (sector != 0) earlier.insert(earlier.end(), after.begin() + 512 * sector - 16, after.begin() + 512 * sector);
      }
      turns.resize(bt::journal::EncodeTurns(plain.data(), converted.data(), size, turns.data()));
      earlier.insert(earlier.end(), turns.begin(), turns.end());
      EXPECT_EQ(bt::journal::BlockUndoSize(earlier.data(), earlier.size(), size), earlier.size());
      for (int cut = 0; cut < 3; ++cut) {  // kept whole, lost whole, torn
        std::vector<std::uint8_t> torn = after;
        for (std::uint32_t sector = 0; sector < size / 512; ++sector)
          if (cut == 1 || (cut > 1 && rng() % 2)) std::copy_n(before.begin() + 512 * sector, 512, torn.begin() + 512 * sector);
        bt::journal::ApplyBlockUndo(earlier.data(), size, b, torn.data());
        EXPECT_EQ(torn, before) << "cut " << cut;
      }
    }
  bt::databaseKeyLoaded = bt::databaseEncrypted = false;
}

// The checksum takes every byte it is given: the last ones of a length that is not a multiple of
// 32, which wait for a lane that never fills, as much as the others, and the same whichever
// pieces they come in. So a header, a commit sector or a last record changed in any byte, its last
// one included, is refused.
TEST(Journal, TheChecksumTakesEveryByteAndAChangedJournalIsRefused) {
  namespace j = bt::journal;
  std::mt19937_64 rng(3);
  for (std::size_t size = 0; size <= 100; ++size) {
    SCOPED_TRACE(std::to_string(size) + " bytes");
    std::vector<std::uint8_t> bytes(size + 1);
    for (auto& b : bytes) b = static_cast<std::uint8_t>(rng());
    const std::uint64_t sum = j::ChecksumOf(bytes.data(), size);
    std::string splits, unseen;  // where two pieces give another sum; bytes changed unseen
    for (std::size_t split = 0; split <= size; ++split) {
      j::Checksum pieces;
      pieces.Add(bytes.data(), split);
      pieces.Add(bytes.data() + split, size - split);
      if (pieces.Value() != sum) splits.append(" ").append(std::to_string(split));
    }
    for (std::size_t at = 0; at < size; ++at) {
      bool seen = true;
      for (std::uint8_t flip : {std::uint8_t{0x01}, std::uint8_t{0x80}}) {
        bytes[at] ^= flip;
        seen = seen && j::ChecksumOf(bytes.data(), size) != sum;
        bytes[at] ^= flip;
      }
      if (!seen) unseen.append(" ").append(std::to_string(at));
    }
    EXPECT_EQ(splits, "") << "in two pieces split at these";
    EXPECT_EQ(unseen, "") << "changed, these bytes leave the sum as it was";
    EXPECT_NE(j::ChecksumOf(bytes.data(), size + 1), sum) << "a byte more";
  }

  // A header whose content ends at every place of a 32-byte lane, its last byte changed.
  j::Header header;
  header.runId = 0x5EED;
  header.volumes.push_back({0, 1, {7, 9}});
  header.lockPath = "L";
  {
    // A journal of the format before, whose undos had no kind byte: refused, and told so.
    std::vector<std::uint8_t> bytes = j::EncodeHeader(header);
    bt::StoreLE32(bytes.data() + 8, 4);
    j::Header back;
    std::string why;
    EXPECT_FALSE(j::DecodeHeader(bytes.data(), bytes.size(), back, why));
    EXPECT_EQ(why, "it was written by an earlier version of byteturn (journal version 4): finish the run with the "
                   "byteturn-recover of that version");
    // One of a later version (an older build put back after a newer one failed), and one whose
    // version is no version.
    bt::StoreLE32(bytes.data() + 8, j::kVersion + 1);
    EXPECT_FALSE(j::DecodeHeader(bytes.data(), bytes.size(), back, why));
    EXPECT_EQ(why, "it was written by a later version of byteturn (journal version " + std::to_string(j::kVersion + 1) +
                       "): finish the run with the byteturn-recover of that version");
    bt::StoreLE32(bytes.data() + 8, 0xFFFFFFFFu);
    EXPECT_FALSE(j::DecodeHeader(bytes.data(), bytes.size(), back, why));
    EXPECT_EQ(why, "it was written by another version of byteturn");
  }
  {
    // One of version 5, before the key check, the volumes' sizes and the table of written blocks:
    // read as it is, with none of them.
    header.keyChecked = true;
    header.keyCheck = 0x1234;
    header.mainFileSize = 0x3000;
    header.volumes[0].size = 0x2000;
    header.tableBlocks = 3000;
    std::vector<std::uint8_t> bytes = j::EncodeHeader(header);
    j::Header back;
    std::string why;
    ASSERT_TRUE(j::DecodeHeader(bytes.data(), bytes.size(), back, why)) << why;
    EXPECT_TRUE(back.keyChecked);
    EXPECT_EQ(back.keyCheck, 0x1234u);
    EXPECT_EQ(back.volumes[0].size, 0x2000u);
    EXPECT_EQ(j::RecordsStart(back), j::kRecordsOffset + 8192);
    // Its end: the volume's size, the main file's size, the lock "L", the key check, the table's
    // size, the lock's identity and time, the checksum.
    bytes.resize(bytes.size() - 8 - 24 - 4 - 12);
    bytes.erase(bytes.end() - 3 - 8 - 8, bytes.end() - 3 - 8);
    bt::StoreLE32(bytes.data() + 8, 5);
    const std::uint64_t sum = j::ChecksumOf(bytes.data(), bytes.size());
    for (int k = 0; k < 8; ++k) bytes.push_back(static_cast<std::uint8_t>(sum >> (8 * k)));
    back = j::Header{};
    ASSERT_TRUE(j::DecodeHeader(bytes.data(), bytes.size(), back, why)) << why;
    EXPECT_FALSE(back.keyChecked);
    EXPECT_EQ(back.volumes[0].size, 0u);
    EXPECT_EQ(j::RecordsStart(back), j::kRecordsOffset);
    EXPECT_EQ(back.mainFileSize, 0x3000u);
    EXPECT_EQ(back.lockPath, "L");
    header.keyChecked = false;
    header.keyCheck = 0;
    header.tableBlocks = 0;
  }
  {
    // One of version 10, before the lock's identity and time: read as it is, with neither.
    header.lockIdentity = {5, 6};
    header.lockChanged = 7;
    std::vector<std::uint8_t> bytes = j::EncodeHeader(header);
    j::Header back;
    std::string why;
    ASSERT_TRUE(j::DecodeHeader(bytes.data(), bytes.size(), back, why)) << why;
    EXPECT_EQ(back.lockIdentity, (platform::FileIdentity{5, 6}));
    EXPECT_EQ(back.lockChanged, 7u);
    bytes.resize(bytes.size() - 8 - 24);
    bt::StoreLE32(bytes.data() + 8, 10);
    const std::uint64_t sum = j::ChecksumOf(bytes.data(), bytes.size());
    for (int k = 0; k < 8; ++k) bytes.push_back(static_cast<std::uint8_t>(sum >> (8 * k)));
    back = j::Header{};
    ASSERT_TRUE(j::DecodeHeader(bytes.data(), bytes.size(), back, why)) << why;
    EXPECT_EQ(back.lockIdentity, platform::FileIdentity{});
    EXPECT_EQ(back.lockChanged, 0u);
    EXPECT_EQ(back.lockPath, "L");
    header.lockIdentity = {};
    header.lockChanged = 0;
  }
  for (std::size_t name = 0; name < 32; ++name) {
    header.mainFile.assign(name, 'd');
    std::vector<std::uint8_t> bytes = j::EncodeHeader(header);
    j::Header back;
    std::string why;
    ASSERT_TRUE(j::DecodeHeader(bytes.data(), bytes.size(), back, why)) << why;
    bytes[bytes.size() - 9] ^= 1;  // the last byte before the checksum: the lock's time
    EXPECT_FALSE(j::DecodeHeader(bytes.data(), bytes.size(), back, why)) << "main file name of " << name;
    EXPECT_EQ(why, "its header is damaged");
  }

  // A block's fingerprint in the table of written blocks takes every byte: a block changed in any
  // one byte (its header, an order mark, a field anywhere in any sector) or in the top bits of
  // words shows, but for the odd change that a 2-byte fingerprint cannot tell (one in 65,536). A
  // journal of version 12 keeps the fingerprints it was written with, which lost every change of
  // the top bits of two words of a lane.
  {
    std::vector<std::uint8_t> block(8192);
    std::mt19937 rng(7);
    for (std::uint8_t& b : block) b = static_cast<std::uint8_t>(rng() % 7 == 0 ? rng() : 0);
    const std::uint16_t whole = j::Fingerprint(block.data(), block.size(), j::kVersion);
    std::size_t unseen = 0;
    for (std::size_t at = 0; at < block.size(); ++at) {
      block[at] ^= 0x11;
      unseen += j::Fingerprint(block.data(), block.size(), j::kVersion) == whole;
      block[at] ^= 0x11;
    }
    EXPECT_LE(unseen, 2u) << "bytes whose change leaves the fingerprint as it was";
    // Changes in the top bits of words of a lane (32 bytes apart), here in a block of random bytes:
    // of two words anywhere in the first 64, and of bits 31 and 63 of four words from each of the
    // first 192 (which a fingerprint of words mixed by one multiplication lost about once in eight).
    std::vector<std::uint8_t> dense(8192);
    for (std::uint8_t& b : dense) b = static_cast<std::uint8_t>(rng());
    const std::uint16_t now = j::Fingerprint(dense.data(), dense.size(), j::kVersion);
    const std::uint16_t before = j::Fingerprint(dense.data(), dense.size(), 12);
    std::vector<std::vector<std::size_t>> changes;
    for (std::size_t a = 7; a < 8 * 64; a += 8)
      for (std::size_t b = a + 32; b < 8 * 64; b += 32) changes.push_back({a, b});
    const std::size_t pairs = changes.size();
    for (std::size_t a = 0; a < 8 * 192; a += 8) changes.push_back({a + 3, a + 7, a + 35, a + 39, a + 67, a + 71, a + 99, a + 103});
    std::size_t unseenChanges = 0, unseenPairsBefore = 0;
    for (const std::vector<std::size_t>& change : changes) {
      for (const std::size_t at : change) dense[at] ^= 0x80;
      unseenChanges += j::Fingerprint(dense.data(), dense.size(), j::kVersion) == now;
      unseenPairsBefore += change.size() == 2 && j::Fingerprint(dense.data(), dense.size(), 12) == before;
      for (const std::size_t at : change) dense[at] ^= 0x80;
    }
    EXPECT_LE(unseenChanges, 2u) << "changes of top bits that leave the fingerprint as it was";
    EXPECT_EQ(unseenPairsBefore, pairs);
    // Equal words moved as far either way (an entry repeated in a block, moved): words a and a + 12
    // of a block of zeros holding one value, then words a + 4 and a + 8 instead.
    std::size_t unseenMoves = 0;
    for (std::size_t a = 0; a < 192; ++a) {
      std::vector<std::uint8_t> was(8192), moved(8192);
      for (const std::size_t w : {a, a + 12}) bt::StoreLE64(&was[8 * w], 0x0123456789ABCDEFu);
      for (const std::size_t w : {a + 4, a + 8}) bt::StoreLE64(&moved[8 * w], 0x0123456789ABCDEFu);
      unseenMoves += j::Fingerprint(was.data(), was.size(), j::kVersion) ==
                     j::Fingerprint(moved.data(), moved.size(), j::kVersion);
    }
    EXPECT_LE(unseenMoves, 2u) << "equal words moved that leave the fingerprint as it was";
    // The same on every processor, whichever way it is taken there: a run is finished wherever
    // its files are moved. Sizes past whole lines of words and past whole words too.
    EXPECT_EQ(whole, 41119);
    EXPECT_EQ(j::Fingerprint(block.data(), 4096 + 32 + 3, j::kVersion), 41811);
    EXPECT_EQ(j::Fingerprint(block.data() + 1, 520, j::kVersion), 12453);
    EXPECT_EQ(j::Fingerprint(block.data(), block.size(), 12), 24710);
    EXPECT_EQ(j::Fingerprint(block.data(), 4096 + 32 + 3, 12), 56238);
    EXPECT_EQ(j::Fingerprint(block.data() + 1, 520, 12), 44714);
  }

  // A commit sector: 124 bytes of content, the record's place, size and checksum from byte 24, the
  // three records before's after them, how many it names at byte 120; then its own checksum.
  std::uint8_t sector[j::kCommitBytes];
  j::EncodeCommit({0x5EED, 1, 1, {{j::kRecordsOffset, 4000, 0xABCDEF}, {}}}, sector);
  j::Commit commit;
  ASSERT_TRUE(j::DecodeCommit(sector, commit));
  EXPECT_EQ(commit.records[0].size, 4000u);
  for (std::size_t at : {32u, 40u, 47u, 72u, 120u, 131u}) {
    sector[at] ^= 1;
    EXPECT_FALSE(j::DecodeCommit(sector, commit)) << "commit byte " << at << " changed";
    sector[at] ^= 1;
  }
  // A commit of version 8 names one record and says nothing of others: read as naming it alone.
  std::uint8_t older[j::kCommitBytes] = {};
  std::memcpy(older, "BTCOMMIT", 8);
  const std::uint64_t fields[] = {0x5EED, 3, j::kRecordsOffset, 4000, 0xABCDEF};
  for (std::size_t k = 0; k < 5; ++k) bt::StoreLE64(older + 8 + 8 * k, fields[k]);
  bt::StoreLE64(older + 48, j::ChecksumOf(older, 48));
  ASSERT_TRUE(j::DecodeCommit(older, commit, 8));
  EXPECT_EQ(commit.number, 3u);
  EXPECT_EQ(commit.open, 1u);
  EXPECT_EQ(commit.records[0].size, 4000u);
  EXPECT_FALSE(j::DecodeCommit(older, commit)) << "read as a commit of this version";
  // The last commit of a run that completed says so in the top bit of the word at byte 120, which
  // a journal of version 13 does not know: its commit so written names too many records.
  j::Commit last{0x5EED, 7, 2, {{j::kRecordsOffset, 4000, 0xABCDEF}, {j::kRecordsOffset + 4096, 8000, 0x12}}};
  last.complete = true;
  j::EncodeCommit(last, sector);
  EXPECT_EQ(bt::LoadLE32(sector + 120), 0x80000002u);
  ASSERT_TRUE(j::DecodeCommit(sector, commit));
  EXPECT_TRUE(commit.complete);
  EXPECT_EQ(commit.open, 2u);
  EXPECT_FALSE(j::DecodeCommit(sector, commit, 13));
  last.complete = false;
  j::EncodeCommit(last, sector);
  ASSERT_TRUE(j::DecodeCommit(sector, commit));
  EXPECT_FALSE(commit.complete);

  // A journal whose last record is changed in its last byte, a byte of a word stored as it was:
  // records of sizes that end at every fourth place of a lane.
  header.mainFile = "ORVA.DAT";
  const std::vector<std::uint8_t> headerBytes = j::EncodeHeader(header);
  std::vector<std::uint8_t> before(4096), after(4096), undo(j::MaxUndoBytes(4096));
  for (auto& b : before) b = static_cast<std::uint8_t>(rng());
  after = before;
  std::reverse(after.begin() + 8, after.begin() + 16);
  std::reverse(after.begin() + 24, after.begin() + 32);
  undo.resize(j::EncodeBlockUndo(before.data(), after.data(), 4096, 2, false, j::Effort::kSmallest, undo.data()));
  std::set<std::size_t> ends;
  for (std::uint32_t maps = 0; maps < 8; ++maps) {
    j::RecordHead head;
    head.runId = 0x5EED, head.number = 1, head.blockSize = 4096, head.resumeBlock = 2;
    head.maps.current = 3;
    head.maps.listed.assign(maps, 3);
    head.entries = {{0, 1, 4096}};
    std::vector<std::uint8_t> record = j::EncodeRecordHead(head);
    record.insert(record.end(), undo.begin(), undo.end());
    ends.insert(record.size() % 32);
    std::vector<std::uint8_t> journal(j::kRecordsOffset + record.size());
    std::copy(headerBytes.begin(), headerBytes.end(), journal.begin());
    j::EncodeCommit({0x5EED, 0, 1, {}}, journal.data() + j::kCommitOffset);
    j::EncodeCommit({0x5EED, 1, 1, {{j::kRecordsOffset, record.size(), j::ChecksumOf(record.data(), record.size())}, {}}},
                    journal.data() + j::kCommitOffset + j::kCommitBytes);
    std::copy(record.begin(), record.end(), journal.begin() + j::kRecordsOffset);
    const auto read = [&](std::uint64_t at, std::uint8_t* to, std::size_t n) {
      if (at > journal.size() || n > journal.size() - at) return false;
      std::copy_n(journal.begin() + static_cast<std::ptrdiff_t>(at), n, to);
      return true;
    };
    j::Found found;
    std::string why;
    ASSERT_TRUE(j::ReadJournal(read, journal.size(), found, why)) << why;
    EXPECT_EQ(found.Latest().resumeBlock, 2u);
    // A commit sector changed (part written): refused, unless the other one says its write failed,
    // in the bit below the completion's.
    journal[j::kCommitOffset + 40] ^= 1;
    EXPECT_FALSE(j::ReadJournal(read, journal.size(), found, why));
    EXPECT_EQ(why, "a commit sector is damaged");
    if (maps == 0) {
      std::uint8_t* other = journal.data() + j::kCommitOffset + j::kCommitBytes;
      j::Commit inEffect;
      ASSERT_TRUE(j::DecodeCommit(other, inEffect));
      inEffect.otherFailed = true;
      j::EncodeCommit(inEffect, other);
      EXPECT_EQ(bt::LoadLE32(other + 120), 0x40000001u);
      ASSERT_TRUE(j::ReadJournal(read, journal.size(), found, why)) << why;
      EXPECT_EQ(found.commit.number, 1u);
      EXPECT_FALSE(j::DecodeCommit(other, inEffect, 14)) << "read as a commit of version 14";
    }
    journal[j::kCommitOffset + 40] ^= 1;
    journal.back() ^= 1;
    EXPECT_FALSE(j::ReadJournal(read, journal.size(), found, why)) << "a record of " << record.size() << " bytes";
    EXPECT_EQ(why, "its last record is damaged");
  }
  EXPECT_EQ(ends.size(), 8u) << "records end at eight places of a lane";
}
