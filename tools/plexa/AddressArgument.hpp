#pragma once

#include <QString>

namespace Plexa
{
  namespace Cli
  {
    /// A HOST:PORT argument. HOST is a name, an IPv4 address or an IPv6 address in brackets
    /// ("[::1]:5000"); PORT a decimal number from 1 to 65535, or 0 where the caller allows it
    /// (a listening address: any free port).
    class AddressArgument
    {
    public:
      /// The protocol's customary port.
      static constexpr int DefaultPort = 5000;

      /// False, with one line saying what is wrong and what is expected in `error`, for a
      /// malformed address.
      static bool parse(const QString& text, bool allowPortZero, AddressArgument& out, QString* error);

      const QString& host() const { return m_host; }
      int port() const { return m_port; }
      /// The same host with another port (the one a listening socket got for port 0).
      AddressArgument withPort(int port) const;
      /// "host:port", with brackets around an IPv6 address.
      QString toString() const;
      /// True for addresses only this machine can reach: "localhost", 127.0.0.0/8 and ::1.
      bool isLoopback() const;

    private:
      QString m_host;
      int m_port = 0;
    };
  }
}
