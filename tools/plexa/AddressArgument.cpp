#include "AddressArgument.hpp"

#include <QRegularExpression>

namespace Plexa
{
  namespace Cli
  {
    bool AddressArgument::parse(const QString& text, bool allowPortZero, AddressArgument& out, QString* error)
    {
      const auto fail = [&](const QString& why) {
        if (error)
          *error = QString("malformed address '%1': %2 (expected HOST:PORT, e.g. 127.0.0.1:%3)")
                       .arg(text, why)
                       .arg(DefaultPort);
        return false;
      };

      QString host;
      QString port;
      if (text.startsWith('[')) {
        const int close = text.indexOf(']');
        if (close < 0)
          return fail("missing ']' after the IPv6 address");
        host = text.mid(1, close - 1);
        if (text.mid(close + 1, 1) != ":")
          return fail("missing ':PORT' after ']'");
        port = text.mid(close + 2);
        if (host.isEmpty() || !host.contains(':'))
          return fail("brackets are for IPv6 addresses");
      } else {
        const int colon = text.lastIndexOf(':');
        if (colon < 0)
          return fail("missing ':PORT'");
        host = text.left(colon);
        port = text.mid(colon + 1);
        if (host.contains(':'))
          return fail("put an IPv6 address in brackets, e.g. [::1]:5000");
      }
      if (host.isEmpty())
        return fail("missing host");
      static const QRegularExpression hostChars("^[A-Za-z0-9._:%-]+$");
      if (!hostChars.match(host).hasMatch())
        return fail(QString("'%1' is not a host name or address").arg(host));
      static const QRegularExpression digits("^[0-9]{1,5}$");
      const int number = port.toInt();
      if (!digits.match(port).hasMatch() || number > 65535)
        return fail(QString("port '%1' is not a number from %2 to 65535").arg(port).arg(allowPortZero ? 0 : 1));
      if (number == 0 && !allowPortZero)
        return fail("port 0 is only for listening");
      out.m_host = host;
      out.m_port = number;
      return true;
    }

    AddressArgument AddressArgument::withPort(int port) const
    {
      AddressArgument other = *this;
      other.m_port = port;
      return other;
    }

    QString AddressArgument::toString() const
    {
      return (m_host.contains(':') ? "[" + m_host + "]" : m_host) + ":" + QString::number(m_port);
    }

    bool AddressArgument::isLoopback() const
    {
      static const QRegularExpression loopbackV4("^127\\.[0-9]{1,3}\\.[0-9]{1,3}\\.[0-9]{1,3}$");
      return m_host == "localhost" || m_host == "::1" || loopbackV4.match(m_host).hasMatch();
    }
  }
}
