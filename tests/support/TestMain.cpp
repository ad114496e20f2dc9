#include <gtest/gtest.h>

#ifdef _WIN32
#include <windows.h>

#include <cstdio>

namespace {
// Under Wine a crashed process may otherwise exit with status 0 and pass for green.
LONG WINAPI ExitOnCrash(EXCEPTION_POINTERS* info) {
  std::fprintf(stderr, "unhandled exception 0x%08lX\n",
               static_cast<unsigned long>(info->ExceptionRecord->ExceptionCode));
  std::fflush(stderr);
  TerminateProcess(GetCurrentProcess(), 3);
  return EXCEPTION_EXECUTE_HANDLER;
}
}  // namespace
#endif

int main(int argc, char** argv) {
#ifdef _WIN32
  SetUnhandledExceptionFilter(ExitOnCrash);
  SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
#endif
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
