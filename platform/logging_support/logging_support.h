#pragma once

#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/sources/record_ostream.hpp>
#include <boost/log/sources/severity_channel_logger.hpp>
#include <boost/log/trivial.hpp>
#include <boost/log/utility/manipulators/add_value.hpp>

#include <filesystem>
#include <string>

/**
 * @brief Logging helpers on Boost.Log shared by every module of the product.
 *
 * One logger per product writes to one file sink. Records carry the attributes FunctionName,
 * LineNum and FileName besides the severity (the trivial scale, trace 0 to fatal 5), the
 * time stamp and the thread. Every thread a module creates installs the module's logger as
 * its thread logger; the KRO_LOG_* macros write through the thread logger.
 */
namespace logging_support {

using severity_level = boost::log::trivial::severity_level;
using logger_type = boost::log::sources::severity_channel_logger_mt<severity_level, std::string>;

/** @brief Installs the common attributes (time stamp, thread) once per process. */
void check_init();

/**
 * @brief Makes `logger` the logger of `product` and opens (appends to) `logFile` for it.
 *
 * A second call for the same product replaces its sink. Returns false when the file cannot
 * be opened; the logger is usable either way (records then go nowhere).
 */
bool create_logger_for_product(logger_type& logger, const std::string& product,
                               const std::filesystem::path& logFile);

/** @brief Drops records below `level` (0 trace ... 5 fatal); larger values clamp to fatal. */
void change_severity_cutoff(unsigned int level);

/** @brief The logger the calling thread writes through, until the thread ends. */
void set_logger_for_thread(logger_type& logger);

/** @brief The calling thread's logger, or the process-wide fallback logger. */
logger_type& default_logger();

/** @brief Removes a product's sink and flushes it (module unload, tests). */
void remove_product_sink(const std::string& product);

/** @brief Base name of a source path, as the FileName attribute shows it. */
constexpr const char* file_name(const char* path) {
  const char* name = path;
  for (const char* p = path; *p != '\0'; ++p) {
    if (*p == '/' || *p == '\\') {
      name = p + 1;
    }
  }
  return name;
}

}  // namespace logging_support

/** @brief One log record at severity `sev` (trace, debug, info, warning, error, fatal). */
#define KRO_LOG(sev)                                                               \
  BOOST_LOG_SEV(::logging_support::default_logger(), ::boost::log::trivial::sev)   \
      << ::boost::log::add_value("FunctionName", std::string(__PRETTY_FUNCTION__)) \
      << ::boost::log::add_value("LineNum", static_cast<int>(__LINE__))            \
      << ::boost::log::add_value("FileName", std::string(::logging_support::file_name(__FILE__)))

#define KRO_LOG_TRACE KRO_LOG(trace)
#define KRO_LOG_DEBUG KRO_LOG(debug)
#define KRO_LOG_INFO KRO_LOG(info)
#define KRO_LOG_WARNING KRO_LOG(warning)
#define KRO_LOG_ERROR KRO_LOG(error)
#define KRO_LOG_FATAL KRO_LOG(fatal)
