// Injected I/O faults, for the tests. A test build of the program (byteturn-faults) defines
// BYTETURN_FAULT_SEAM and links fault_seam.cpp, which reads a plan from the environment
// variable BYTETURN_FAULTS; both platform files ask it before each open, transfer and flush. The
// program itself is built without it: every question below is then an inline "no fault".
//
// Plan: entries "op:name:arg:fault" separated by ';'.
//   op     open, openrw (only opens for reading and writing), read, write, sync or create (the
//          exclusive create of a new file, the lock)
//   name   the end of the file's path ("ORVA.DAT", "ORVA-0002.VOL"); empty for any file
//   arg    open, openrw, sync: which matching call fails (1 = the first; 0 = every one); read, write: a
//          byte position: every transfer that covers it fails, as a bad place on a disk does, or
//          POSITION/N: the Nth transfer that covers it and every one after (a place gone bad during
//          the run); create: unused
//   fault  EIO, ENOSPC or EACCES (the platform's own code for it is recorded); short: the
//          transfer moves the bytes before the position and stops, as at the end of a file;
//          slow: the transfer waits three seconds, then goes through (a run that is sure to
//          hold its lock while another starts; for create: the new file is held open three
//          seconds before it is written and closed); appears (create only): a file of that name,
//          holding "another run", is made just before the create, as by a run that took the
//          lock between this run's look for it and its create
// BYTETURN_POWERCUT=N:seed simulates a power cut at the Nth write, flush, rename or directory flush
// (writes and renames are made first, flushes are not): every write made since its file's last
// flush is then lost, kept, or torn at 512-byte boundaries (some of its sectors kept, the others
// not), and every name created, renamed or removed since the last directory flush stays or goes
// back, each as the seed decides; then the process ends at once (status 99, "power cut" on
// standard error), without any cleanup.
// BYTETURN_POWERCUT=N:seed:kill kills the process there instead: it ends at once (status 98,
// "killed" on standard error), reverting nothing; what it did not flush stays in the page cache.
// A run with a power cut or kill planned that ends before it prints "operations N" (those
// counted) on standard error at its end.
// BYTETURN_POWERCUT_COUNTS=flushes counts only flushes (of files and of directories), for N and
// for "operations N".
// BYTETURN_PAGECACHE=path names a ledger of the page cache, which hands what is not durable yet
// from one process to the next, as the processes of one machine share its page cache: each
// write not flushed (its file's whole path, its position, the bytes it replaced) and each name
// change not made durable (a removal is held, the file renamed aside, until the directory is
// flushed). A process loads the ledger when it first writes, flushes or changes a name, the
// entries pending before its own; a flush of a file drops that file's entries whoever made them
// (renames followed), a directory flush every name change. A power cut then loses, keeps or
// tears the earlier processes' writes and keeps or undoes their name changes too, the newest
// first, and removes the ledger; a process that ends otherwise (done, failed, killed) writes in
// it what is still pending, its held removals still held. Without a ledger a process's unflushed
// writes are kept when it ends without a cut, and its held removals are made. A ledger that
// cannot be read ends the process at once (status 97).
// BYTETURN_GROUP_BYTES sets the bytes of writes a journaled run holds per group.
// BYTETURN_RECORD_BY_RUN=1 has a journaled run write every group's record in its own thread, =2
// every other group's (the writer thread writes the others').
// BYTETURN_BATCH_BLOCKS sets the number of blocks the conversion reads and writes per call;
// BYTETURN_CHECK_SLOTS the number of held blocks and of chunks of marks that byteturn-check keeps
// in memory (so that a small database sends them to its temporary files).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform.h"

namespace platform::faults {

enum class Fault { kNone, kIo, kNoSpace, kAccess, kShort };

#ifdef BYTETURN_FAULT_SEAM
Fault BeforeOpen(const std::string& path, bool writing);
void NoteOpened(File file, const std::string& path);
void NoteClosed(File file);
// For kShort, *stop is the position where the transfer stops.
Fault BeforeTransfer(bool writing, File file, std::uint64_t position, std::size_t size, std::uint64_t* stop);
Fault BeforeSync(File file);
void BeforeCreate(const std::string& path);
void AfterCreate(const std::string& path);
// A text file's close, which writes what its stream still holds ("close" in the plan).
Fault BeforeTextClose(const std::string& path);
// BYTETURN_BATCH_BLOCKS: blocks per batch of the conversion (0: the program's own choice).
std::uint32_t BatchBlocks();
// BYTETURN_CHECK_SLOTS (0: the program's own choice).
std::uint32_t CheckSlots();
// BYTETURN_GROUP_BYTES (0: the program's own choice).
std::uint32_t GroupBytes();
// BYTETURN_WRITER_LAG (0: the writer starts on a group as soon as it is committed).
std::uint32_t WriterLag();
// BYTETURN_RECORD_BY_RUN (0: the program's own choice of who writes a group's record; 1: the run,
// always; 2: the run and the writer thread in turn, group by group).
std::uint32_t RecordByRun();
// The power cut's record of what is not durable yet.
void NoteCreated(File file, const std::string& path);
void BeforeWrite(File file, std::uint64_t position, std::size_t size);
void AfterWrite();
void NoteRenamed(const std::string& from, const std::string& to);
// With a power cut planned, a removal is held back until the directory is flushed: true when so.
bool RemoveHeld(const std::string& path);
void NoteDirectorySynced();
#else
inline Fault BeforeOpen(const std::string&, bool) { return Fault::kNone; }
inline void NoteOpened(File, const std::string&) {}
inline void NoteClosed(File) {}
inline Fault BeforeTransfer(bool, File, std::uint64_t, std::size_t, std::uint64_t*) { return Fault::kNone; }
inline Fault BeforeSync(File) { return Fault::kNone; }
inline void BeforeCreate(const std::string&) {}
inline void AfterCreate(const std::string&) {}
inline Fault BeforeTextClose(const std::string&) { return Fault::kNone; }
inline std::uint32_t BatchBlocks() { return 0; }
inline std::uint32_t CheckSlots() { return 0; }
inline std::uint32_t GroupBytes() { return 0; }
inline std::uint32_t WriterLag() { return 0; }
inline std::uint32_t RecordByRun() { return 0; }
inline void NoteCreated(File, const std::string&) {}
inline void BeforeWrite(File, std::uint64_t, std::size_t) {}
inline void AfterWrite() {}
inline void NoteRenamed(const std::string&, const std::string&) {}
inline bool RemoveHeld(const std::string&) { return false; }
inline void NoteDirectorySynced() {}
#endif

// Asks the plan about a transfer of size bytes at position: the fault to record, or kShort with
// *size cut to stop before the faulty position, or kNone.
inline Fault TransferFault(bool writing, File file, std::uint64_t position, std::size_t* size) {
  std::uint64_t stop = 0;
  const Fault fault = BeforeTransfer(writing, file, position, *size, &stop);
  if (fault == Fault::kShort) *size = static_cast<std::size_t>(stop - position);
  return fault;
}

}  // namespace platform::faults
