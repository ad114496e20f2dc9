#pragma once

// Internal to the server library: how a worker reads and writes a connection without TLS.

#include <chrono>
#include <cstddef>

#include <boost/system/error_code.hpp>

namespace hlp::detail {

struct PeerStream;

/** @brief Readies the freshly accepted plain socket of `peer` for the two calls below. */
boost::system::error_code PreparePlainSocket(PeerStream& peer);

/**
 * @brief Reads what the peer sent, at most `size` bytes (at least one), waiting for it until
 * `deadline` (asio::error::timed_out). The peer's end is asio::error::eof; a close from another
 * thread (PeerStream::CloseFromAnyThread) ends the wait at once.
 */
boost::system::error_code ReceiveSome(PeerStream& peer, char* data, size_t size,
                                      std::chrono::steady_clock::time_point deadline, size_t& read);

/** @brief Writes at most `size` bytes (at least one) by `deadline`; otherwise as ReceiveSome. */
boost::system::error_code SendSome(PeerStream& peer, const char* data, size_t size,
                                   std::chrono::steady_clock::time_point deadline, size_t& written);

}  // namespace hlp::detail
