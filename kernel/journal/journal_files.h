// The journal's files: where the journal lies and how it is made, the mark of the run on the main
// file, and the handles through which the journal writes the database files.
#pragma once

#include <cstdint>

#include "journal_format.h"

namespace bt::journaling {

// The run fails: what went wrong with the journal, or with the main file's mark.
[[noreturn]] void JournalFailed(const char* what);
[[noreturn]] void MarkFailed(const char* what);

std::uint64_t NewRunId();
// Makes the journal (at the first commit), then marks the main file.
void CreateJournal();

// The mark on the main file: whether the file can take one; kept or made again for a run resumed;
// the writes of a group stamped in it, or those of the record a recovery put back; cut off once
// the run is complete.
bool MainFileTakesMark(std::uint64_t size, std::uint32_t version);
// Whether the main file of the interrupted run of header bears, or is to bear, its mark: as
// MainFileTakesMark, but for a main file shorter than its blocks, not where it bears none and
// holds other than the run's bytes (its missing blocks put back since, over the mark): such a file
// is finished without one, as a run before version 12 left it.
bool MarkExpected(const journal::Header& header);
// Whether the main file bears the run of header's mark at the file's starting size, with bytes
// added after it since (a short file's missing blocks appended past the mark).
bool MarkInside(const journal::Header& header);
void ResumeMark();
bool StampGroup(std::uint64_t number);
void StampResumedGroup();
// Once every file is flushed, before the mark is cut off: the last commit says the run completed.
void CommitCompletion();
// The write of the commit sector of number failed, and may have left it part written: the commit
// in effect (inEffect, or else the other sector's as it stands) is written in the other sector,
// saying so, and flushed. As far as it goes: the run ends on the first failure either way, and
// the system's error stays that of the failed write.
void WriteCommitAfterFailure(std::uint64_t number, const journal::Commit* inEffect);
void UnmarkMainFile();

// The journal's own handle of volume v, which the run opens (false where it cannot).
bool OpenVolumeHandle(std::uint32_t v);
[[noreturn]] void FailOpeningVolume(std::uint32_t v);

}  // namespace bt::journaling
