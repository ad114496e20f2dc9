#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "core/RoutineTable.h"
#include "server/FileCache.h"

namespace kro {

/** @brief Room kept in front of a routine's answer for the header. */
inline constexpr size_t kAnswerHeaderRoom = 256;

/**
 * @brief A complete HTTP answer being built: the body first, then the header put before it.
 * An answer kept by the file cache is shared instead of copied.
 */
struct AnswerBuffer {
  std::unique_ptr<char[]> data;
  size_t capacity = 0;
  size_t length = 0;
  /** @brief When set, the whole answer, in place of `data`. */
  std::shared_ptr<const std::string> shared;

  /** @brief A fresh buffer of `size` bytes; 8 (out of memory) when it cannot be had. */
  long Allocate(size_t size);
  std::string_view View() const {
    if (shared != nullptr) {
      return *shared;
    }
    return {data.get(), data != nullptr ? length : 0};
  }
};

/**
 * @brief The three replacements that keep a URI inside the UI folder, in their order: every
 * "..", then every backslash, is removed; a run of two or more "/" at the very start becomes
 * one. "/arbalo/../../x" becomes "/arbalo///x".
 */
std::string NormaliseUri(std::string_view uri);

/**
 * @brief The path a browser request's URI is served under: the query is dropped, "%XX" escapes
 * are decoded (a "%" without two hex digits stays as it is) and the result is normalised; then
 * "/" becomes the start page ("/arbalo/index.html" on the agent, "/kro/master/index.html"
 * otherwise) and any other path ending in "/" gets "index.html". The session gate judges this
 * path, so it must be exactly the one that is served.
 */
std::string RoutedPath(std::string_view uri, bool agent);

/** @brief The content type for a path's extension (after its last "."), "" when unknown. */
std::string ContentTypeFor(std::string_view path);

/**
 * @brief Puts the status line and the headers in front of the `length` body bytes. 87 without
 * a buffer, 0x80000191 (nothing changed) when header and body do not fit together.
 */
long PrependAnswerHeader(AnswerBuffer& answer, std::string_view contentType);

/**
 * @brief What an admitted browser request becomes: a file of the UI folder or the JSON answer
 * of a routine, as a complete answer.
 */
class BrowserRouter {
 public:
  /**
   * @param uiFolder The "User Interface" folder, ending in a separator.
   * @param reportsSetting The installation's reports setting: 0 serves the full reports.
   */
  BrowserRouter(const KroAgent::RoutineTable* routines, std::wstring uiFolder,
                uint32_t reportsSetting);

  /** @brief 0 when `answer` holds the answer; anything else is answered 404 by the caller. */
  long ServeBrowserRequest(std::string_view uri, const char* body, size_t bodyLength, bool agent,
                           AnswerBuffer& answer) const;
  /** @brief ServeBrowserRequest for a path that RoutedPath has already made. */
  long ServeRoutedPath(std::string_view path, const char* body, size_t bodyLength, bool agent,
                       AnswerBuffer& answer) const;

  /**
   * @brief The file a normalised URI names (it need not exist); 87 outside the UI space, and for
   * a name with ":" or "~", which no UI file has: on Windows they would reach a file stream or a
   * page under its short name, a spelling that the session gate cannot tell is a page.
   */
  long MapUriToFile(std::string_view uri, bool agent, std::wstring& path) const;

 private:
  long ServeFile(std::string_view uri, bool agent, AnswerBuffer& answer) const;
  long ServeRoutine(std::string_view uri, const char* body, size_t bodyLength, bool agent,
                    AnswerBuffer& answer) const;

  const KroAgent::RoutineTable* routines_;
  std::wstring uiFolder_;
  uint32_t reportsSetting_;
  std::unique_ptr<FileCache> cache_;
};

}  // namespace kro
