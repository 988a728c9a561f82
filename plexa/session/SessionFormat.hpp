#pragma once

// Wire constants of the session layer: module names, the handshake commands and the fields of the
// handshake's "info" record. docs/protocol.md ("Module handshake") describes the records in prose.
namespace Plexa
{
  /// Module names. The side that sends a module's bundles picks a message type number for it and
  /// announces the pair with a "load-module" record; only the handshake has a fixed number.
  namespace ModuleNames
  {
    constexpr const char* Handshake = "Corvanta.Plexa.Handshake";
    constexpr const char* SymbolRegistry = "Corvanta.Plexa.SymbolRegistry";
    constexpr const char* AttributeNew = "Corvanta.Plexa.AttributeNew";
    constexpr const char* AttributeUpdate = "Corvanta.Plexa.AttributeUpdate";
    constexpr const char* AttributeRemove = "Corvanta.Plexa.AttributeRemove";
    constexpr const char* OneWayEvent = "Corvanta.Plexa.OneWayEvent";
  }

  /// The handshake module's own message type.
  constexpr unsigned HandshakeMessageType = 0;

  /// Commands of the handshake records (each record: length word, command string, fields).
  namespace HandshakeCommands
  {
    constexpr const char* Info = "info";
    constexpr const char* LoadModule = "load-module";
    constexpr const char* Ok = "ok";
    constexpr const char* Error = "error";
  }

  /// What this side announces about itself in its "info" record.
  namespace HandshakeInfo
  {
    constexpr const char* ApplicationKey = "application";
    constexpr const char* ApplicationValue = "Plexa";
    constexpr const char* VersionKey = "version";
    constexpr const char* VersionValue = "2.7.2";
    /// The key of the result text in "ok" and "error" records.
    constexpr const char* DescriptionKey = "description";
  }

  /// Longest string the handshake receiver accepts in a record (command, module name, map keys and
  /// values). Real values are a few dozen bytes; the limit keeps a hostile count from being taken
  /// as the size of a copy.
  constexpr unsigned MaxHandshakeStringBytes = 64 * 1024;

  /// Lines a receiver logs about single bad records of one session (an unknown symbol, a removal
  /// of nothing); the rest are counted silently after one line saying so. A peer sends such
  /// records by the hundred thousand per bundle (every record naming a path that a cap refused is
  /// one), and would otherwise fill the log at the rate of its records.
  constexpr int MaxRecordLogLines = 20;
}
