#include <windows.h>

#include <cstdio>
#include <vector>

#include "host/HostPlatform.h"

namespace kro::host {

const char* const kModuleFileName = "KroAgent.dll";

namespace {

HANDLE g_stopEvent = nullptr;
DWORD g_stopKind = 0;

BOOL WINAPI OnConsoleControl(DWORD kind) {
  g_stopKind = kind;
  SetEvent(g_stopEvent);
  return TRUE;
}

}  // namespace

std::filesystem::path ExecutableFolder() {
  std::vector<wchar_t> buffer(32768);
  const DWORD length =
      GetModuleFileNameW(nullptr, buffer.data(), static_cast<DWORD>(buffer.size()));
  if (length == 0 || length >= buffer.size()) {
    return {};
  }
  return std::filesystem::path(std::wstring(buffer.data(), length)).parent_path();
}

void* LoadModule(const std::filesystem::path& file, std::string& error) {
  HMODULE module = LoadLibraryExW(file.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
  if (module == nullptr) {
    error = "Windows error " + std::to_string(GetLastError());
  }
  return module;
}

void* FindExport(void* module, const char* name) {
  return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(module), name));
}

unsigned long RaiseOpenFileLimit() {
  return 0;  // sockets are handles; there is no per-process descriptor table to raise
}

void CaptureStopRequests() {
  g_stopEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  SetConsoleCtrlHandler(OnConsoleControl, TRUE);
}

std::string WaitForStopRequest() {
  WaitForSingleObject(g_stopEvent, INFINITE);
  return g_stopKind == CTRL_C_EVENT ? "Ctrl+C" : "console close";
}

std::string LocalTimeText() {
  SYSTEMTIME local;
  GetLocalTime(&local);
  char text[32] = {};
  std::snprintf(text, sizeof(text), "%04u-%02u-%02u %02u:%02u:%02u", unsigned{local.wYear},
                unsigned{local.wMonth}, unsigned{local.wDay}, unsigned{local.wHour},
                unsigned{local.wMinute}, unsigned{local.wSecond});
  return text;
}

}  // namespace kro::host
