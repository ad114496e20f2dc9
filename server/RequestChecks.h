#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kro {

/** @brief What a request's User-Agent makes of its sender. */
enum class ClientClass {
  OldBrowser,         // Internet Explorer 6 to 8: answered with a page, connection ends
  Component,          // another component of the console, version 1.2 or newer
  OutdatedComponent,  // a component older than 1.2: refused
  Browser,            // any other client of a "KroMaster" or "KroAgent" server
  Unsupported,        // any other client of a server of another name
};

/**
 * @brief Reads a User-Agent of the form Name/Major.Minor. 0 when Name is one of the console's
 * components, and `supported` tells whether it is version 1.2 or newer; 0x80000001 for any
 * other name; 0x80000114 without a "/".
 */
long ClientIdentity(std::string_view userAgent, bool& supported);

/** @brief Sorts a client by its User-Agent ("" when absent). */
ClientClass ClassifyClient(std::string_view userAgent, bool serverIsMasterOrAgent);

/**
 * @brief Whether a request of that class is let through to its body and dispatch: components
 * and browsers under "/kro/" or "/arbalo/" (any case), a browser also for exactly "/".
 */
bool IsUriAdmitted(ClientClass client, std::string_view uri);

/**
 * @brief A "Content-Length" value: an unsigned decimal number that makes up the whole value,
 * blanks around it allowed. False for anything else, an overflow included.
 */
bool ParseContentLength(std::string_view value, uint64_t& length);

/** @brief The number at the start of `text`, read as atoi does, but clamped instead of wrapping. */
int LeadingInt(std::string_view text);

/** @brief The page an old browser gets instead of an answer. */
std::string OldBrowserPage(bool agent);

}  // namespace kro
