#include "logging_support/logging_support.h"

#include <boost/core/null_deleter.hpp>
#include <boost/log/attributes/clock.hpp>
#include <boost/log/attributes/current_thread_id.hpp>
#include <boost/log/core.hpp>
#include <boost/log/expressions.hpp>
#include <boost/log/expressions/formatters/date_time.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/log/sinks/text_ostream_backend.hpp>
#include <boost/log/support/date_time.hpp>

#include <algorithm>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>

namespace logging_support {
namespace {

namespace logging = boost::log;
namespace expr = boost::log::expressions;
namespace sinks = boost::log::sinks;

using text_sink = sinks::synchronous_sink<sinks::text_ostream_backend>;

BOOST_LOG_ATTRIBUTE_KEYWORD(a_severity, "Severity", severity_level)
BOOST_LOG_ATTRIBUTE_KEYWORD(a_channel, "Channel", std::string)
BOOST_LOG_ATTRIBUTE_KEYWORD(a_function, "FunctionName", std::string)
BOOST_LOG_ATTRIBUTE_KEYWORD(a_line, "LineNum", int)
BOOST_LOG_ATTRIBUTE_KEYWORD(a_file, "FileName", std::string)

struct State {
  std::mutex lock;
  std::map<std::string, boost::shared_ptr<text_sink>> sinks;
  unsigned int cutoff = 0;
};

State& state() {
  // Leaked on purpose: threads of a module may still log while static objects are destroyed.
  static State* s = new State;
  return *s;
}

thread_local logger_type* t_logger = nullptr;

void apply_filter(unsigned int cutoff) {
  logging::core::get()->set_filter(a_severity >= static_cast<severity_level>(cutoff));
}

}  // namespace

void check_init() {
  static std::once_flag once;
  std::call_once(once, [] {
    auto core = logging::core::get();
    core->add_global_attribute("TimeStamp", logging::attributes::local_clock());
    core->add_global_attribute("ThreadID", logging::attributes::current_thread_id());
    apply_filter(state().cutoff);
  });
}

bool create_logger_for_product(logger_type& logger, const std::string& product,
                               const std::filesystem::path& logFile) {
  check_init();
  logger.channel(product);

  auto file = boost::make_shared<std::ofstream>(logFile, std::ios::out | std::ios::app);
  const bool opened = file->is_open();

  auto backend = boost::make_shared<sinks::text_ostream_backend>();
  if (opened) {
    backend->add_stream(file);
  }
  // Every record reaches the disk at once: the log is what an operator reads after a crash.
  backend->auto_flush(true);

  auto sink = boost::make_shared<text_sink>(backend);
  sink->set_filter(a_channel == product);
  sink->set_formatter(expr::stream << expr::format_date_time<boost::posix_time::ptime>(
                                          "TimeStamp", "%Y-%m-%d %H:%M:%S.%f")
                                   << " [" << a_severity << "] ["
                                   << expr::attr<logging::thread_id>("ThreadID") << "] " << a_file
                                   << ":" << a_line << " " << a_function << " - "
                                   << expr::smessage);

  State& s = state();
  std::lock_guard<std::mutex> guard(s.lock);
  auto core = logging::core::get();
  if (auto old = s.sinks.find(product); old != s.sinks.end()) {
    core->remove_sink(old->second);
    old->second->flush();
  }
  core->add_sink(sink);
  s.sinks[product] = sink;
  return opened;
}

void remove_product_sink(const std::string& product) {
  State& s = state();
  std::lock_guard<std::mutex> guard(s.lock);
  if (auto it = s.sinks.find(product); it != s.sinks.end()) {
    logging::core::get()->remove_sink(it->second);
    it->second->flush();
    s.sinks.erase(it);
  }
}

void change_severity_cutoff(unsigned int level) {
  State& s = state();
  std::lock_guard<std::mutex> guard(s.lock);
  s.cutoff = std::min(level, static_cast<unsigned int>(severity_level::fatal));
  apply_filter(s.cutoff);
}

void set_logger_for_thread(logger_type& logger) {
  t_logger = &logger;
}

logger_type& default_logger() {
  if (t_logger != nullptr) {
    return *t_logger;
  }
  static logger_type* fallback = new logger_type(logging::keywords::channel = "");
  return *fallback;
}

}  // namespace logging_support
