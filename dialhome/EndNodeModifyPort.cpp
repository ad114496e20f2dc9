#include "dialhome/EndNodeModifyPort.h"

#include <cstring>
#include <functional>
#include <locale>
#include <memory>
#include <new>
#include <sstream>
#include <string>
#include <string_view>

#include "core/KroStatus.h"
#include "hlp/Json.h"

namespace kro {
namespace {

constexpr const char* kRoutineName = "ModifyCommunicationPort";
constexpr const char* kUnavailableMessage = "The port is unavailable at the target system";

/**
 * @brief Stream extraction of an unsigned number, as the server's requests have always been
 * read: leading blanks and a sign are taken, reading stops at the first other character
 * ("8443abc" is 8443), a minus wraps ("-1" is the type's largest value) and a magnitude beyond
 * the type fails. `value` changes only on success.
 */
template <typename T>
bool ExtractUnsigned(const std::string& text, T& value) {
  std::istringstream in(text);
  in.imbue(std::locale::classic());
  T read = 0;
  if (!(in >> read)) {
    return false;
  }
  value = read;
  return true;
}

/** @brief A member of the request as a number; false when it is missing or not one. */
template <typename T>
bool ReadMember(const hlp::JsonValue& request, std::string_view name, T& value) {
  const hlp::JsonValue* member = request.FindMember(name);
  return member != nullptr && ExtractUnsigned(member->AsText(), value);
}

std::string WriteReply(bool success, uint64_t systemId) {
  std::ostringstream out;
  hlp::JsonWriter writer(out);
  writer.Object();
  writer.Name("result");
  writer.String(success ? "success" : "error");
  writer.Name("systemId");
  // A JSON string, so that 64-bit identifiers survive readers that hold numbers as doubles.
  writer.String(std::to_string(systemId));
  if (!success) {
    writer.Name("message");
    writer.String(kUnavailableMessage);
  }
  writer.EndObject();
  return writer.IsComplete() ? out.str() : std::string();
}

long HandBack(const std::string& reply, const char** response, size_t* responseLen) {
  if (reply.empty()) {
    return status::MalformedData;
  }
  return KroAgent::HandOverAnswer(reply, response, responseLen);
}

}  // namespace

EndNodeModifyPort::EndNodeModifyPort(std::atomic<uint32_t>& pendingPort)
    : pendingPort_(pendingPort) {}

long EndNodeModifyPort::Register(KroAgent::RoutineTable& routines) {
  try {
    pendingPort_.store(0);
    return routines.Register(kRoutineName, [this](const char* request, size_t requestLen,
                                                  const char** response, size_t* responseLen) {
      return ModifyCommunicationPort(request, requestLen, response, responseLen);
    });
  } catch (...) {
    return status::OutOfMemory;
  }
}

long EndNodeModifyPort::ModifyCommunicationPort(const char* request, size_t requestLen,
                                                const char** response, size_t* responseLen) {
  if (response == nullptr || responseLen == nullptr) {
    return status::NotAvailable;
  }
  try {
    uint64_t systemId = 0;
    bool success = false;
    if (request != nullptr && requestLen > 0) {
      std::string_view text(request, requestLen);
      // A caller that counted the C string's terminator must not make the JSON malformed.
      while (!text.empty() && text.back() == '\0') {
        text.remove_suffix(1);
      }
      hlp::JsonParser parser;
      const std::unique_ptr<hlp::JsonValue> root = parser.Parse(text);
      uint16_t port = 0;
      // The system id is read first so that a reply to a request with a bad port still tells
      // the server which of its systems refused.
      if (root != nullptr && root->IsObject() && ReadMember(*root, "systemId", systemId) &&
          ReadMember(*root, "port", port) && TestPortAvailable(port) == status::Ok) {
        pendingPort_.store(port);
        success = true;
      }
    }
    return HandBack(WriteReply(success, systemId), response, responseLen);
  } catch (const std::bad_alloc&) {
    return status::OutOfMemory;
  } catch (...) {
    return status::Failure;
  }
}

}  // namespace kro
