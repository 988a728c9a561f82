#pragma once

// Wire constants and limits of the connection transport: the text handshake, the keep-alive lines,
// map blocks and the writer's chunking. The prose description of the format is in docs/protocol.md
// (section "Connection transport").

#include <cstdint>

namespace Plexa
{
  namespace NetFormat
  {
    /// Port a client uses when the application names none.
    constexpr int DefaultPort = 5000;

    /// Version line both ends send during the handshake ("Orrery <major>.<minor>.<patch>").
    constexpr const char* VersionLine = "Orrery 2.7.2";
    /// What a peer's version line must match, whole: captures 1, 2, 3 = major, minor, patch,
    /// capture 5 = the suffix after '-'.
    constexpr const char* VersionPattern = "^Orrery (1|2)\\.(\\d+)\\.(\\d+)(-(.+))?$";
    /// The only login name; an old peer sends it as its first line, without a version line.
    constexpr const char* LoginName = "quill";
    constexpr const char* HandshakeOk = "ok";
    constexpr const char* HandshakeRefused = "Wrong username or password";
    /// Raw random bytes the server sends after its version line; the answer is
    /// MD5(challenge[0..31] + key + challenge[32..63]).
    constexpr int ChallengeBytes = 64;
    constexpr int ChallengeHalfBytes = ChallengeBytes / 2;
    constexpr int AnswerBytes = 16;
    /// Length of the built-in shared key.
    constexpr int SharedKeyBytes = 10;

    /// Keep-alive lines, matched whole and case-sensitively. The answer to a ping line is the same
    /// line with its second character changed to 'o'.
    constexpr const char* PingPattern = "^ping(?: .+)?$";
    constexpr const char* PongPattern = "^pong(?: (.+))?$";
    constexpr const char* PingLine = "ping\n";
    constexpr const char* PingBufferName = "ping";
    /// Payload of the first ping a side sends after its handshake.
    constexpr const char* InitialPingPayload = "initialized";

    /// A client waits this long between the starts of two connection attempts.
    constexpr double RetryIntervalSecs = 3.0;
    /// Silence after which the writer sends a ping; half the ping timeout when that is shorter, so
    /// that the peer always has time to answer.
    constexpr double KeepAliveIdleSecs = 5.0;
    /// Silence after which the writer declares the peer dead, unless the application sets another.
    /// Runs from the handshake on, whether or not the peer ever answered a ping: a peer that holds
    /// a connection open and says nothing is dropped after this time.
    constexpr double DefaultPingTimeoutSecs = 10.0;
    /// The writer wakes at least this often to run the keep-alive (more often for ping timeouts
    /// shorter than a few seconds).
    constexpr int WriterWakeMs = 1000;
    /// Chunk of the writer's "data-written" progress: one event per chunk of at most this size.
    constexpr int WriteChunkBytes = 16384;
    /// Largest piece of one part the writer hands to the socket in one call: a few chunks
    /// gathered, which halves the kernel's per-packet work on fast links; the events are still
    /// sent per chunk, for the chunks that were written in full.
    constexpr int WriteGatherBytes = 4 * WriteChunkBytes;
    /// `skip()` discards in pieces of this size.
    constexpr int SkipPieceBytes = 512;

    /// A listening server waits this long between two bind attempts.
    constexpr double BindRetrySecs = 5.0;
    constexpr int AcceptPollUsec = 50000;
    /// Connections the kernel completes ahead of the accept loop. A hub whose peers all come
    /// back at once (after a restart, or a network that was down) gets them in a burst; with a
    /// short queue the kernel drops the rest and their connects stall for seconds of SYN retries.
    constexpr int AcceptBacklog = 128;
    /// After a failed accept (out of descriptors: the connection stays pending, so polling again
    /// would return at once) the server waits this long, doubling up to AcceptRetryMaxMs, instead
    /// of spinning at full speed until a descriptor frees up.
    constexpr int AcceptRetryMinMs = 50;
    constexpr int AcceptRetryMaxMs = 1000;

    // Limits on what a peer can make this process do. Breaking one ends that connection only,
    // with an error line naming the limit, the peer and the size.

    /// Longest line accepted once connected. Stops a peer that never sends a line feed from
    /// growing one line until memory runs out.
    constexpr int MaxLineBytes = 1 << 20;
    /// Longest line accepted during the handshake, where only short fixed texts are expected.
    constexpr int MaxHandshakeLineBytes = 4096;
    /// Largest new-form map block. Stops a size item from making the reader wait for (and buffer)
    /// gigabytes; memory still grows only with the bytes actually received.
    constexpr int MaxMapBlockBytes = 64 << 20;
    /// Reads of announced sizes grow their buffer in steps of this size, so memory follows the
    /// bytes received instead of a length prefix.
    constexpr int ReadGrowthBytes = 1 << 20;
    /// Read time limit of the whole handshake exchange: a silent or slow peer cannot hold a
    /// connection thread (and a server slot) for ever.
    constexpr int DefaultHandshakeTimeoutMs = 10000;
    /// Time limit of one socket write: a peer that stops reading cannot block the writer (and,
    /// through the write mutex, the reader's pong) for ever.
    constexpr int DefaultWriteTimeoutMs = 30000;
    /// Longest piece of a peer's text quoted in a log line (in characters; longer texts are cut and
    /// their full size given). Stops a peer from writing a megabyte into the log with each line.
    constexpr int LoggedTextChars = 200;
    /// At most this many log lines of one kind per connection within LogWindowSecs; the lines held
    /// back are counted and the count is logged when the window ends or the connection does. Stops
    /// a peer from filling the log at line rate.
    constexpr int LogBurstLines = 10;
    constexpr double LogWindowSecs = 10.0;
  }
}
