#pragma once

#include <cstdint>

/**
 * @brief Every status code the agent returns, named once.
 *
 * Statuses travel as `long`. Each code is the sign-extended value of its 32-bit form, so a
 * failure is negative on every platform (on LP64 a plain 0x80000000 literal in a `long` would
 * be positive and `status < 0` would miss it). Print a status with `kro::status::Hex`.
 */
namespace kro::status {

constexpr long Code(uint32_t value) {
  return static_cast<int32_t>(value);
}

constexpr long Ok = 0;

// Plain Windows error numbers that a few server operations return as they are.
constexpr long WinAccessDenied = 5;
constexpr long WinOutOfMemory = 8;
constexpr long WinNotRunning = 12;
constexpr long WinInvalidParameter = 87;

constexpr long Failure = Code(0x80000000);           // unexpected exception, general failure
constexpr long UnknownComponent = Code(0x80000001);  // User-Agent names no known component
constexpr long FileOpenFailed = Code(0x80000011);
constexpr long FileReadFailed = Code(0x80000012);
constexpr long FileWriteFailed = Code(0x80000014);
constexpr long PathTooLong = Code(0x80000024);  // executable path beyond its buffer
constexpr long OutOfMemory = Code(0x80000030);
constexpr long OutOfRange = Code(0x80000032);  // path or index out of range
constexpr long RegistryOpenFailed = Code(0x80000100);
constexpr long RegistryValueMissing = Code(0x80000101);  // missing or of the wrong type
constexpr long RegistryWriteFailed = Code(0x80000102);
constexpr long MalformedData = Code(0x80000110);  // JSON, framing, empty file
constexpr long NotAvailable = Code(0x80000114);   // missing or invalid input
constexpr long NotFound = Code(0x80000120);       // not found in a table
constexpr long FolderListFailed = Code(0x80000184);
constexpr long NoKnownMember = Code(0x80000185);
constexpr long LibraryLoadFailed = Code(0x80000187);
constexpr long EmptyCertificatePath = Code(0x80000188);
constexpr long ConnectExhausted = Code(0x80000189);
constexpr long BufferTooSmall = Code(0x80000191);  // buffer too small or full
constexpr long ServerNotStarted = Code(0x80000192);
constexpr long DuplicateProduct = Code(0x80000194);
constexpr long EmptyRecord = Code(0x80000195);
constexpr long PortUnavailable = Code(0x80000206);
// Not a failure of the connection: it waits on the server's loop for its next request.
constexpr long Pending = Code(0x80000207);

/** @brief A Windows (or, on POSIX, errno) error `e` as a status: (e & 0xFFFF) | 0x80070000. */
constexpr long FromWin32(uint32_t e) {
  return Code((e & 0xFFFFu) | 0x80070000u);
}

/** @brief True for a failure: the top bit of the 32-bit form is set. */
constexpr bool Failed(long status) {
  return status < 0;
}

/** @brief The 32-bit form, as printed in logs and by the host ("0x80000011"). */
constexpr uint32_t Bits(long status) {
  return static_cast<uint32_t>(status);
}

}  // namespace kro::status
