#include "tests/support/TestSupport.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <system_error>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

#ifdef _WIN32
#include <cpuid.h>
#include <windows.h>
#endif

namespace kro::test {

namespace {

std::filesystem::path UniqueTempPath() {
  static std::atomic<unsigned> counter{0};
  std::random_device rd;
  std::ostringstream name;
  name << "kro-test-" << std::hex << rd() << "-" << counter++;
  return std::filesystem::temp_directory_path() / name.str();
}

#ifdef _WIN32
void DeleteProductKeys() {
  RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Norvane Technologies");
}
#endif

}  // namespace

TempDir::TempDir() : path_(UniqueTempPath()) {
  std::filesystem::create_directories(path_);
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

std::filesystem::path TempDir::Write(const std::string& name, const std::string& content) const {
  // Names are UTF-8 everywhere (a narrow path on Windows would be read in the ANSI code page).
  const auto file =
      path_ / std::filesystem::path(std::u8string(name.begin(), name.end())).make_preferred();
  WriteFile(file, content);
  return file;
}

void WriteFile(const std::filesystem::path& file, const std::string& content) {
  std::filesystem::create_directories(file.parent_path());
  std::ofstream(file, std::ios::binary | std::ios::trunc) << content;
}

std::string ReadFile(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

uint16_t FreeTcpPort() {
  boost::asio::io_context io;
  return boost::asio::ip::tcp::acceptor(io, {boost::asio::ip::address_v4::loopback(), 0})
      .local_endpoint()
      .port();
}

struct RefusingPort::State {
  boost::asio::io_context io;
  boost::asio::ip::tcp::socket socket{io};
};

RefusingPort::RefusingPort() : state_(std::make_unique<State>()) {
  // No SO_REUSEADDR: a listener of another test cannot share the port either.
  state_->socket.open(boost::asio::ip::tcp::v4());
  state_->socket.bind({boost::asio::ip::address_v4::loopback(), 0});
  port_ = state_->socket.local_endpoint().port();
}

RefusingPort::~RefusingPort() = default;

struct LoopbackListener::State {
  boost::asio::io_context io;
  boost::asio::ip::tcp::acceptor acceptor{io, {boost::asio::ip::address_v4::loopback(), 0}};
};

LoopbackListener::LoopbackListener() : state_(std::make_unique<State>()) {
  port_ = state_->acceptor.local_endpoint().port();
}

LoopbackListener::~LoopbackListener() = default;

void LoopbackListener::Close() {
  state_.reset();
}

void SetEnv(const char* name, const char* value) {
#ifdef _WIN32
  _putenv_s(name, value != nullptr ? value : "");
#else
  if (value != nullptr) {
    setenv(name, value, 1);
  } else {
    unsetenv(name);
  }
#endif
}

ScopedRegistry::ScopedRegistry() {
#ifdef _WIN32
  DeleteProductKeys();
#else
  if (const char* old = std::getenv("KRO_REGISTRY_FILE"); old != nullptr) {
    saved_ = old;
    hadSaved_ = true;
  }
  file_ = dir_.Path() / "registry.reg";
  SetEnv("KRO_REGISTRY_FILE", file_.string().c_str());
#endif
}

ScopedRegistry::~ScopedRegistry() {
#ifdef _WIN32
  DeleteProductKeys();
#else
  SetEnv("KRO_REGISTRY_FILE", hadSaved_ ? saved_.c_str() : nullptr);
#endif
}

bool HypervisorPresent() {
#ifdef _WIN32
  unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
  return __get_cpuid(1, &eax, &ebx, &ecx, &edx) != 0 && (ecx & (1u << 31)) != 0;
#else
  std::ifstream in("/proc/cpuinfo");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("flags", 0) == 0) {
      return (line + ' ').find(" hypervisor ") != std::string::npos;
    }
  }
  return false;
#endif
}

}  // namespace kro::test
