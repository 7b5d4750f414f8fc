// Where the run's reads and writes of the database files go. The run, the batch and the
// converters read and write through the store in use and do not know which one it is:
// - direct: every write goes to the file at once (BYTETURN_JOURNAL=off);
// - held: nothing is written; writes are held in memory and temporary files, and every read sees
//   them (byteturn-check);
// - journaled: writes are held in groups with their undo, committed to the journal, then written
//   (journal.h).
// Positions and sizes are in bytes of whole blocks of one database file.
#pragma once

#include <cstdint>
#include <string>

#include "platform.h"

namespace bt {

class Store {
 public:
  virtual ~Store() = default;

  // Opens a database file (the main file or a volume) as the store uses it.
  virtual platform::File Open(const std::string& path) = 0;
  // Takes the run's lock and holds the main file against a second run; releases the lock.
  virtual void Lock(const std::string& lockPath, const std::string& fileName) = 0;
  virtual void Unlock(const std::string& lockPath) = 0;

  // Reads size bytes at position as the run has left them; false on failure (error recorded).
  virtual bool Read(platform::File file, std::uint64_t position, std::uint8_t* buffer, std::uint32_t size) = 0;
  // A block written out of its turn. failure and block make the run's message when the write
  // fails later than this call.
  virtual bool Write(platform::File file, std::uint64_t position, const std::uint8_t* bytes, std::uint32_t size,
                     const char* failure, std::uint32_t block) = 0;

  // The writes in their turn of one volume, from position on, through file.
  virtual void BeginInTurn(platform::File, std::uint64_t) {}
  // Whether the block at position, written in its turn, is to be handed to WriteInTurn.
  virtual bool TakesInTurn(platform::File, std::uint64_t) { return true; }
  // A run of blocks written in their turn, block being the first.
  virtual bool WriteInTurn(platform::File file, std::uint64_t position, const std::uint8_t* bytes, std::uint32_t size,
                           std::uint32_t block) = 0;
  // Whether WriteInTurn takes the blocks of an encrypted database before their encryption, which
  // the store then makes itself (StoredEncrypted tells which blocks).
  virtual bool EncryptsInTurn() const { return false; }
  // The bytes a batch read at position, before the run changes them.
  virtual void KeepOriginals(platform::File, std::uint64_t, const std::uint8_t*, std::uint32_t) {}

  // What the batch may do: read through free blocks (no write of its own can be waiting on them),
  // and take a block rewritten out of order from the bytes written rather than from the file.
  virtual bool ReadsThroughFreeBlocks() const { return false; }
  virtual bool CopiesRewrittenBlocks() const { return false; }

  // Points where order matters. Before the run reads on from the disk at block b; whether the
  // store holds enough to settle now; settle at the point where block resume's turn comes next
  // (the messages marked up to releaseMark are shown once it has); the volume's blocks are done.
  virtual void BeforeRead(std::uint32_t) {}
  virtual bool WantsToSettle() { return false; }
  virtual void Settle(std::uint32_t, std::uint64_t) {}
  virtual void EndVolume(std::uint32_t) {}

  // Flushes a file to stable storage; false on failure (error recorded).
  virtual bool Flush(platform::File file) = 0;
  // The run is about to close file: a store that wrote through it and has not flushed it since
  // flushes it now (the run's final flush can no longer reach it); false when that fails.
  virtual bool Release(platform::File) { return true; }
  // The run is complete: what the store still holds is made durable and its own files go.
  virtual void Finish() {}
};

// The store the run uses: the direct store until the command's front door chooses another.
Store& TheStore();
void UseStore(Store& store);

}  // namespace bt
