#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>

namespace PlexaTest
{
  /// A TCP proxy on 127.0.0.1 that forwards every connection it accepts to 127.0.0.1:`targetPort`
  /// and, while faults are on, mistreats the traffic at random from `seed`: it holds data back
  /// (delays, preserving order), hands it on in pieces down to 1 byte, stalls one direction for
  /// seconds, and cuts a connection in the middle of what it was forwarding. The same seed gives the
  /// same sequence of decisions (the timing of the peers still varies). With faults off it forwards
  /// as it receives; when swallowing it reads both directions and forwards nothing, not even the
  /// end of a connection until swallowing stops, and leaves new connections in its backlog, which
  /// to each side looks like a stopped process whose connection stays open.
  ///
  /// One thread of its own does all the work; the setters may be called from any thread.
  class FaultProxy
  {
  public:
    struct Faults
    {
      /// Chance (out of 1000) per received chunk: held back up to `maxDelayMs`.
      int delay = 300;
      int maxDelayMs = 200;
      /// Chance per chunk: written in random pieces of 1 to `maxPiece` bytes, apart in time.
      int split = 300;
      int maxPiece = 64;
      /// Chance per chunk: its direction stops for `minStallMs` to `maxStallMs` first.
      int stall = 10;
      int minStallMs = 1000;
      int maxStallMs = 3000;
      /// Chance per chunk: only a random part of it is forwarded, then the connection is cut.
      int cut = 6;
    };

    /// Listens at once; `port()` is valid when this returns (0 if listening failed).
    FaultProxy(int targetPort, unsigned seed, const Faults& faults);
    FaultProxy(int targetPort, unsigned seed);
    /// Closes every connection and joins the thread.
    ~FaultProxy();
    FaultProxy(const FaultProxy&) = delete;
    FaultProxy& operator=(const FaultProxy&) = delete;

    int port() const;

    /// Off: data held back is due at once, stalls end, and nothing new is mistreated.
    void setFaults(bool on);
    /// On: both directions of every connection, present and future, are read and dropped.
    void setSwallowing(bool on);

    /// Connections cut so far by the proxy (not by the peers).
    int cuts() const;
    /// Connections accepted so far.
    int accepted() const;

  private:
    class D;
    std::unique_ptr<D> d;
  };
}
