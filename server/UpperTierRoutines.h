#pragma once

#include <cstddef>

namespace kro {

class KroServer;

/** @brief Registry value that records the upper tier's last heartbeat (seconds since 1970). */
inline constexpr const wchar_t* kLastHeartBeatValue = L"LastHeartBeatTime";

/**
 * @brief "checkHeartBeat": records the heartbeat (or hands it to "UpdateCommunicationTime"
 * when that is registered) and answers a one-line status page. 0 while the server runs, 12
 * otherwise (the page is answered either way), 8 when the page cannot be allocated. Without
 * an answer slot it does nothing and returns 0.
 */
long CheckHeartBeat(KroServer& server, const char* request, size_t requestLength,
                    const char** response, size_t* responseLength);

/** @brief "Authentication": the component name, "/" and the protocol version. 8 without memory. */
long Authentication(KroServer& server, const char* request, size_t requestLength,
                    const char** response, size_t* responseLength);

/**
 * @brief "AddResponseToSendUpperTier": queues a record named by the request text whose second
 * text is the text the caller put in the answer slot (read, not written). 12 when the server
 * is not running; a record that does not fit is dropped silently.
 */
long AddResponseToSendUpperTier(KroServer& server, const char* request, size_t requestLength,
                                const char** response, size_t* responseLength);

/**
 * @brief "AddJobResponseToSendUpperTier": queues a "ProcessJobDone" record with the job's
 * identifier (the request) and its answer (the text in the answer slot). 12 when not running.
 */
long AddJobResponseToSendUpperTier(KroServer& server, const char* request, size_t requestLength,
                                   const char** response, size_t* responseLength);

}  // namespace kro
