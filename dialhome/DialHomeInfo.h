#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "core/KroAgentTypes.h"

namespace hlp {
class JsonWriter;
}

namespace kro {

/**
 * @brief The enrolment settings the management server hands the agent ("DialHomeInfo.txt").
 *
 * Each group of fields has a presence bit; a group whose bit is clear is neither written to
 * the file nor trusted by readers.
 */
struct DialHomeInfo {
  static constexpr uint32_t kHomeName = 0x01;
  static constexpr uint32_t kHome = 0x02;  // HomePort, HomeSSL, HomeAltPort, HomeAltSSL
  static constexpr uint32_t kSystemName = 0x04;
  static constexpr uint32_t kAgent = 0x08;    // AgentPort, AgentSSL
  static constexpr uint32_t kProduct = 0x10;  // ProductPort, ProductSSL
  static constexpr uint32_t kStartupMode = 0x20;
  static constexpr uint32_t kPhases = 0x40;

  static constexpr uint16_t kDefaultAgentPort = 13568;

  uint32_t flags = 0;
  std::string homeName;
  uint16_t homePort = 0;
  bool homeSSL = false;
  uint16_t homeAltPort = 0;
  bool homeAltSSL = false;
  std::string systemName;
  uint16_t agentPort = kDefaultAgentPort;
  bool agentSSL = true;
  uint16_t productPort = 0;
  bool productSSL = false;
  KroAgent::StartupMode startupMode = KroAgent::Normal;
  uint32_t baPhase[4] = {0, 0, 0, 0};

  /** @brief Back to the defaults: nothing present, the agent on 13568 with TLS. */
  void Reset() { *this = DialHomeInfo(); }
};

// The settings file is one line of items "Key:value" (or "Key=value") separated by ",", for
// example HomeName:mgmt01,HomePort:8443,HomeSSL:Y,AgentPort:9443,AgentSSL:Y,StartupMode:Normal.
// Only its first line counts. None of these functions logs: the callers do. None throws.

/**
 * @brief The settings file's path: the installation folder ("InstallDir" under
 * HKLM "SOFTWARE\\Norvane Technologies\\Arbalo\\Setup") with a separator appended when it
 * has none, then a separator and "DialHomeInfo.txt"; the doubled separator is kept. The
 * registry's status (0x80000100 or 0x80000101) when the folder cannot be read.
 */
long GetDialHomeInfoPath(std::wstring& path);

/**
 * @brief Reads the first line of the settings file and merges it into `record` (items the
 * line does not name keep their values). 0x80000011 cannot open, 0x80000012 no line; the
 * parser's status otherwise.
 */
long ReadDialHomeInfo(DialHomeInfo& record);

/**
 * @brief Merges one settings line into `record`. Keys (long or short) are matched without
 * regard to case, white space is removed everywhere first, unknown items are skipped and
 * phase lengths out of range are ignored. 0x80000114 for a line that is empty or all white
 * space; 0x80000110 for a number that does not convert, with the items before it kept.
 */
long ParseDialHomeInfoLine(DialHomeInfo& record, const std::string& line);

/**
 * @brief True when a name ("HomeName", "SystemName") can go into the settings line and read
 * back unchanged: not empty; no white space or control character (the reader drops the first
 * and a line end would cut the line); none of "," ":" "=" (they would start another item); no
 * long key of the table, which the single-value look-up would find inside it.
 */
bool IsSettingsLineText(std::string_view text);

/**
 * @brief Formats the record as one line (no line end): the present groups in their fixed
 * order, numbers in decimal, flags "Y"/"N". 0x80000114 without a HomeName, or when a name
 * is not IsSettingsLineText (the line would not read back as the record).
 */
long FormatDialHomeInfo(const DialHomeInfo& record, std::string& text);

/**
 * @brief Replaces the file at `path` with the formatted line and a line end, atomically.
 * 0x80000114 without a HomeName (nothing touched), 0x80000011 cannot create, 0x80000014 write
 * failed.
 */
long WriteDialHomeInfoFile(const std::wstring& path, const DialHomeInfo& record);

/** @brief WriteDialHomeInfoFile to the settings file's own path. */
long SaveDialHomeInfo(const DialHomeInfo& record);

/**
 * @brief The raw text of one item of the file's first line, without parsing the line: the key
 * is found as an exact, case-sensitive substring (no short keys, no white-space removal) and
 * its value runs to the next ",". 0x80000114 empty line, wrong separator or empty value;
 * 0x80000120 key not found or line too short.
 */
long GetDialHomeInfoValue(const std::string& key, std::string& value);

/**
 * @brief Merges a JSON object into the record, member by member with exact names; each
 * accepted member sets its presence bit. No range checks. 0x80000000 when the text does not
 * open with an object or a member has the wrong type, 0x80000114 for a name that is not
 * IsSettingsLineText (members before either stay merged; the refused one is not applied).
 */
long ParseDialHomeInfoJson(DialHomeInfo& record, const char* json);

/**
 * @brief Writes the record as one JSON object with the present groups (names as strings,
 * ports and phases as numbers, flags as booleans, the start-up mode as its number).
 * 0x80000114 without a HomeName (nothing written), 0x80000000 when the writer is bad.
 */
long DialHomeInfoToJson(const DialHomeInfo& record, hlp::JsonWriter& writer);

/**
 * @brief Merges the start-up part of an enrolment message: "startArbalo" (1 Normal, 0 Paused,
 * else Active) and "BAPhaseDuration" (the four phases in seconds, stored as whole hours; all
 * zero means start Active and keep the phases). 0x80000114 when the text is no object, a value
 * has the wrong type, or a duration is missing or no whole number (no phase changes then).
 */
long ParseStartupSettings(DialHomeInfo& record, const char* json);

}  // namespace kro
