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
  /// Longest path, in UTF-8 bytes, that a command of the peer may name (the system's own limit on
  /// a path): a longer one is refused with a log line. It bounds what each of the per-connection
  /// caps below can hold, which a peer could otherwise fill with paths of up to a line (1 MiB).
  constexpr int MaxFilePathBytes = 4096;
  /// Downloads one connection may have booked at a time. Each unrequested "fileinfo" books one, kept
  /// until the file is finished or the connection ends: the cap stops a peer from filling the
  /// download list with announcements it never follows with parts. A "fileinfo" over it is refused.
  constexpr int MaxDownloadsPerConnection = 1024;
  /// Paths one connection may have waiting in its upload queue ("sendparts" not yet started). A
  /// request over it, or for a path already waiting, is refused: the queue cannot grow with
  /// requests the peer repeats faster than files are sent.
  constexpr int MaxQueuedUploads = 1024;
  /// A "sendfileinfo" is left unanswered while more than this many bytes wait in the connection's
  /// write buffer: a peer that asks without reading the answers cannot make the buffer grow past
  /// it. Uploads pause at UploadBufferLimit, so an answer still fits beside a running upload.
  constexpr int64_t FileInfoReplyBufferLimit = UploadBufferLimit + (int64_t(1) << 20);
  /// transferProgress is called after every this many parts received, and after the last.
  constexpr int64_t ProgressInterval = 20;
  /// Read size when hashing files for the file list.
  constexpr int FileHashBlockSize = 4096;
  /// Writer buffer name of everything the file transfer queues (local only, never on the wire): a
  /// connection that ends drops what of it is still queued, which the next connection's peer would
  /// take for parts and answers out of place.
  constexpr const char* FileBufferName = "filesync";
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
