#pragma once

// Wire constants of the file transfer line protocol; the format is described in docs/protocol.md
// ("File transfer").

#include <cstdint>

namespace Plexa
{
  /// Raw bytes carried by one "filepart" line at most (and the size of every part but the last).
  constexpr int64_t FilePartSize = 65536;
  /// A "filepart" announcing more bytes than this is read past in pieces of this size and dropped:
  /// it bounds the memory one line can make the receiver allocate.
  constexpr int64_t FilePartReadLimit = FilePartSize;
  /// The sender pauses while more than this many bytes wait in the connection's write buffer
  /// (32 MiB or more), so that a large file never fills memory.
  constexpr int64_t UploadBufferLimit = 33554431;
  /// The writer wakes a paused sender once its buffer has drained below this.
  constexpr int64_t UploadResumeLevel = (UploadBufferLimit + 1) / 2;
  /// Pause of a sender that found the buffer full, in seconds.
  constexpr double UploadPauseSeconds = 0.1;
  /// transferProgress is called after every this many parts received, and after the last.
  constexpr int64_t ProgressInterval = 20;
  /// Read size when hashing files for the file list.
  constexpr int FileHashBlockSize = 4096;
  /// Folders nested deeper than this below the root are not listed (logged). A tree that peers may
  /// have grown through downloads could otherwise make a rescan hold one descriptor and one stack
  /// frame per level without bound.
  constexpr int FileListDepthLimit = 256;
  /// Suffix of the file that a download is written into before it is verified and moved in place.
  constexpr const char* TemporarySuffix = ".filesync.part";

  /// A path between double quotes: one or more segments, each a '/' and one or more characters
  /// other than ? * < > : and the double quote.
  constexpr const char* PathPattern = "\"((?:/[^?*<>:\"]+)+)\"";
  constexpr const char* FileInfoExpression = "^fileinfo (-?\\d+) %1 (\\d+) ([0-9a-f]{32})$";
  constexpr const char* SendFileInfoExpression = "^sendfileinfo %1$";
  constexpr const char* FilePartExpression = "^filepart %1 (\\d+) (\\d+)$";
  constexpr const char* SendPartsExpression = "^sendparts %1$";
}
