#pragma once

// Test helpers (not installed) for checking wire bytes and the exceptions of decoders.

#include <QByteArray>

#include <initializer_list>
#include <stdexcept>
#include <string>

namespace PlexaTest
{
  /// Bytes from a list of byte values.
  inline QByteArray bytes(std::initializer_list<int> values)
  {
    QByteArray out;
    for (int v : values)
      out.append(char(v));
    return out;
  }

  /// What `f` threw, as "<kind>: <text>" (kind out_of_range, invalid_argument or other), or
  /// "(nothing thrown)".
  template <typename F>
  std::string thrownText(F&& f)
  {
    try {
      f();
    } catch (const std::out_of_range& e) {
      return std::string("out_of_range: ") + e.what();
    } catch (const std::invalid_argument& e) {
      return std::string("invalid_argument: ") + e.what();
    } catch (const std::exception& e) {
      return std::string("other: ") + e.what();
    }
    return "(nothing thrown)";
  }

  inline std::string outOfRange(const char* text)
  {
    return std::string("out_of_range: ") + text;
  }
  inline std::string invalidArgument(const char* text)
  {
    return std::string("invalid_argument: ") + text;
  }
}
