#include "server/BrowserRouter.h"

#include <cstring>
#include <filesystem>
#include <fstream>
#include <new>

#include "common/FilePath.h"
#include "common/WinHelper.h"
#include "core/KroStatus.h"
#include "core/StringCompare.h"
#include "server/RequestChecks.h"
#include "server/RoutineCall.h"
#include "server/ThreadPriority.h"

namespace kro {
namespace {

struct MimeType {
  std::string_view extension;
  const char* type;
};

constexpr MimeType kMimeTypes[] = {
    {"html", "text/html"},
    {"htm", "text/html"},
    {"css", "text/css"},
    {"js", "application/x-javascript"},
    {"javascript", "application/x-javascript"},
    {"txt", "text/plain"},
    {"pdf", "application/pdf"},
    {"gif", "image/gif"},
    {"jpeg", "image/jpeg"},
    {"jpg", "image/jpeg"},
    {"png", "image/png"},
    {"tiff", "image/tiff"},
    {"xml", "application/xml"},
};

constexpr std::string_view kJsonType = "application/json";

// UI files are small; anything this large is not one of ours and is not read into memory.
constexpr uintmax_t kMaxFileBytes = 256ull * 1024 * 1024;

int HexDigit(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  if (c >= 'A' && c <= 'F') {
    return c - 'A' + 10;
  }
  return -1;
}

std::string PercentDecoded(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    const int high = text[i] == '%' && i + 2 < text.size() ? HexDigit(text[i + 1]) : -1;
    const int low = high >= 0 ? HexDigit(text[i + 2]) : -1;
    if (low < 0) {
      out += text[i];
      continue;
    }
    out += static_cast<char>(high * 16 + low);
    i += 2;
  }
  return out;
}

}  // namespace

long AnswerBuffer::Allocate(size_t size) {
  shared.reset();
  data.reset(new (std::nothrow) char[size]);
  capacity = data != nullptr ? size : 0;
  length = 0;
  return data != nullptr ? status::Ok : status::WinOutOfMemory;
}

std::string NormaliseUri(std::string_view uri) {
  // Done by hand rather than with std::regex, whose matcher recurses once per character and
  // would let a long URI from the network exhaust a worker's stack; the results are the same.
  std::string noDots;
  noDots.reserve(uri.size());
  for (size_t i = 0; i < uri.size(); ++i) {
    if (uri[i] == '.' && i + 1 < uri.size() && uri[i + 1] == '.') {
      ++i;
      continue;
    }
    noDots += uri[i];
  }
  std::string out;
  out.reserve(noDots.size());
  for (const char c : noDots) {
    if (c != '\\') {
      out += c;
    }
  }
  size_t slashes = 0;
  while (slashes < out.size() && out[slashes] == '/') {
    ++slashes;
  }
  if (slashes >= 2) {
    out.erase(0, slashes - 1);
  }
  return out;
}

std::string RoutedPath(std::string_view uri, bool agent) {
  // The query part takes no part in routing; a routine's request is the body.
  uri = uri.substr(0, uri.find('?'));
  std::string path = NormaliseUri(PercentDecoded(uri));
  if (path == "/") {
    return agent ? "/arbalo/index.html" : "/kro/master/index.html";
  }
  // A folder's address, such as "/arbalo/", opens the folder's start page.
  if (!path.empty() && path.back() == '/') {
    path += "index.html";
  }
  return path;
}

std::string ContentTypeFor(std::string_view path) {
  const size_t dot = path.rfind('.');
  if (dot == std::string_view::npos) {
    return {};
  }
  const std::string_view extension = path.substr(dot + 1);
  for (const MimeType& mime : kMimeTypes) {
    if (mime.extension == extension) {
      return mime.type;
    }
  }
  return {};
}

long PrependAnswerHeader(AnswerBuffer& answer, std::string_view contentType) {
  if (answer.data == nullptr) {
    return status::WinInvalidParameter;
  }
  std::string header = "HTTP/1.1 200 OK\r\n";
  if (contentType == kJsonType) {
    header += "Cache-Control: No-store, No-cache, must-revalidate\r\n";
  }
  header += "content-Type: ";
  header += contentType;
  header += "\r\ncontent-Length: ";
  header += std::to_string(answer.length);
  header += "\r\n\r\n";
  if (answer.length > answer.capacity || header.size() > answer.capacity - answer.length) {
    return status::BufferTooSmall;
  }
  std::memmove(answer.data.get() + header.size(), answer.data.get(), answer.length);
  std::memcpy(answer.data.get(), header.data(), header.size());
  answer.length += header.size();
  return status::Ok;
}

BrowserRouter::BrowserRouter(const KroAgent::RoutineTable* routines, std::wstring uiFolder,
                             uint32_t reportsSetting)
    : routines_(routines),
      uiFolder_(std::move(uiFolder)),
      reportsSetting_(reportsSetting),
      cache_(std::make_unique<FileCache>()) {}

long BrowserRouter::ServeBrowserRequest(std::string_view uri, const char* body, size_t bodyLength,
                                        bool agent, AnswerBuffer& answer) const {
  try {
    return ServeRoutedPath(RoutedPath(uri, agent), body, bodyLength, agent, answer);
  } catch (...) {
    return status::Failure;
  }
}

long BrowserRouter::ServeRoutedPath(std::string_view path, const char* body, size_t bodyLength,
                                    bool agent, AnswerBuffer& answer) const {
  try {
    const long fileResult = ServeFile(path, agent, answer);
    if (fileResult == status::Ok) {
      return fileResult;
    }
    return ServeRoutine(path, body, bodyLength, agent, answer);
  } catch (...) {
    return status::Failure;
  }
}

long BrowserRouter::MapUriToFile(std::string_view uri, bool agent, std::wstring& path) const {
  std::string_view relative;
  if (agent) {
    if (!StartsWithIgnoringCase(uri, "/arbalo/")) {
      return status::WinInvalidParameter;
    }
    relative = uri.substr(std::strlen("/arbalo/"));
  } else {
    if (!StartsWithIgnoringCase(uri, "/kro/")) {
      return status::WinInvalidParameter;
    }
    // "/kro/common/..." maps to the shared "common" folder, anything else to the folder its
    // first segment names: both are the rest after "/kro/".
    relative = uri.substr(std::strlen("/kro/"));
  }
  // Normalising cannot catch a ".." that only forms once a backslash between the dots is
  // removed ("/arbalo/.\./x"); nothing with ".." left in it is looked up on disk.
  if (relative.find("..") != std::string_view::npos ||
      relative.find_first_of(std::string_view(":~\0", 3)) != std::string_view::npos) {
    return status::WinInvalidParameter;
  }
  std::string file(relative);
  if (file.find("reports.html") != std::string::npos &&
      file.find("fullreports.html") == std::string::npos && (agent || reportsSetting_ == 0)) {
    file.replace(file.find("reports.html"), std::strlen("reports.html"), "fullreports.html");
  }
  for (char& c : file) {
    if (c == '/') {
      c = kPathSeparatorA;
    }
  }
  std::wstring wide;
  if (const long st = Utf8ToWide(file, wide); st != status::Ok) {
    return st;
  }
  path = uiFolder_ + wide;
  return status::Ok;
}

long BrowserRouter::ServeFile(std::string_view uri, bool agent, AnswerBuffer& answer) const {
  if (uiFolder_.empty()) {
    return status::FileOpenFailed;
  }
  if (auto kept = cache_->Find(agent, uri); kept != nullptr) {
    answer.data.reset();
    answer.capacity = 0;
    answer.length = 0;
    answer.shared = std::move(kept);
    return status::Ok;
  }
  std::wstring path;
  if (const long st = MapUriToFile(uri, agent, path); st != status::Ok) {
    return st;
  }
  const std::filesystem::path file = ToFilePath(path);
  FileStamp stamp;
  if (!ReadFileStamp(file, stamp) || !stamp.regular) {
    return status::FileOpenFailed;
  }
  const uintmax_t size = stamp.size;
  if (size > kMaxFileBytes) {
    return status::FileReadFailed;
  }
  std::ifstream in(file, std::ios::binary);
  if (!in) {
    return status::FileOpenFailed;
  }
  if (const long st = answer.Allocate(static_cast<size_t>(size) + kAnswerHeaderRoom);
      st != status::Ok) {
    return st;
  }
  in.read(answer.data.get(), static_cast<std::streamsize>(size));
  if (static_cast<uintmax_t>(in.gcount()) != size) {
    return status::FileReadFailed;
  }
  answer.length = static_cast<size_t>(size);
  const long st = PrependAnswerHeader(answer, ContentTypeFor(uri));
  if (st == status::Ok) {
    cache_->Store(agent, uri, file, stamp, answer.View());
  }
  return st;
}

long BrowserRouter::ServeRoutine(std::string_view uri, const char* body, size_t bodyLength,
                                 bool agent, AnswerBuffer& answer) const {
  if (!StartsWithIgnoringCase(uri, agent ? "/arbalo/" : "/kro/")) {
    return status::WinInvalidParameter;
  }
  std::string_view name = uri;
  if (routines_ == nullptr || !routines_->Contains(name)) {
    name = uri.substr(uri.rfind('/') + 1);
    if (routines_ == nullptr || !routines_->Contains(name)) {
      return status::NotFound;
    }
  }
  RoutineAnswer result;
  long st = status::Ok;
  {
    ScopedThreadPriorityBoost boost;
    st = CallRoutine(routines_, name, body, bodyLength, result);
  }
  if (result.Data() == nullptr && st != status::Ok) {
    return st;
  }
  if (result.Length() > SIZE_MAX - kAnswerHeaderRoom) {
    return status::BufferTooSmall;
  }
  if (const long alloc = answer.Allocate(result.Length() + kAnswerHeaderRoom);
      alloc != status::Ok) {
    return alloc;
  }
  if (result.Length() != 0) {
    std::memcpy(answer.data.get(), result.Data(), result.Length());
  }
  answer.length = result.Length();
  return PrependAnswerHeader(answer, kJsonType);
}

}  // namespace kro
