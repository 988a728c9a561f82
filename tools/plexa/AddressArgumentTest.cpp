#include "AddressArgument.hpp"

#include <gtest/gtest.h>

using Plexa::Cli::AddressArgument;

TEST(AddressArgument, HostsAndPortsAreTakenApart)
{
  AddressArgument a;
  QString error;
  ASSERT_TRUE(AddressArgument::parse("127.0.0.1:5000", false, a, &error));
  EXPECT_EQ(a.host(), "127.0.0.1");
  EXPECT_EQ(a.port(), 5000);
  EXPECT_EQ(a.toString(), "127.0.0.1:5000");
  EXPECT_TRUE(a.isLoopback());

  ASSERT_TRUE(AddressArgument::parse("[::1]:65535", false, a, &error));
  EXPECT_EQ(a.host(), "::1");
  EXPECT_EQ(a.port(), 65535);
  EXPECT_EQ(a.toString(), "[::1]:65535");
  EXPECT_TRUE(a.isLoopback());

  ASSERT_TRUE(AddressArgument::parse("render-node.local:1", false, a, &error));
  EXPECT_FALSE(a.isLoopback());
  ASSERT_TRUE(AddressArgument::parse("0.0.0.0:0", true, a, &error));
  EXPECT_EQ(a.port(), 0);
  EXPECT_FALSE(a.isLoopback());
  ASSERT_TRUE(AddressArgument::parse("localhost:80", false, a, &error));
  EXPECT_TRUE(a.isLoopback());
  ASSERT_TRUE(AddressArgument::parse("127.example.com:80", false, a, &error));
  EXPECT_FALSE(a.isLoopback());
}

TEST(AddressArgument, MalformedAddressesSayWhatIsMissing)
{
  const std::vector<std::pair<const char*, const char*>> cases = {
      {"localhost", "missing ':PORT'"},
      {":5000", "missing host"},
      {"host:", "port '' is not a number from 1 to 65535"},
      {"host:http", "port 'http' is not a number from 1 to 65535"},
      {"host:65536", "port '65536' is not a number from 1 to 65535"},
      {"host:-1", "port '-1' is not a number from 1 to 65535"},
      {"host:+80", "port '+80' is not a number from 1 to 65535"},
      {"host:0", "port 0 is only for listening"},
      {"::1:80", "put an IPv6 address in brackets, e.g. [::1]:5000"},
      {"[::1]80", "missing ':PORT' after ']'"},
      {"[::1:80", "missing ']' after the IPv6 address"},
      {"[host]:80", "brackets are for IPv6 addresses"},
      {"two words:80", "'two words' is not a host name or address"},
  };
  for (const auto& [text, why] : cases) {
    AddressArgument a;
    QString error;
    EXPECT_FALSE(AddressArgument::parse(text, false, a, &error)) << text;
    EXPECT_EQ(
        error.toStdString(),
        QString("malformed address '%1': %2 (expected HOST:PORT, e.g. 127.0.0.1:5000)").arg(text, why).toStdString());
  }
}
