#pragma once

#include <cstddef>
#include <cstdint>

/** @brief Signature of a routine: request in, a response buffer the caller frees out. */
using RoutineFn = long(const char* request, size_t requestLen, const char** response,
                       size_t* responseLen);

namespace KroAgent {

/** @brief How the managed product starts, as the management server decided. */
enum StartupMode : int32_t { Normal = 0, Paused = 1, Active = 2 };

/** @brief The four phases of the product's first run, in their order. */
enum BAPhaseType : int32_t {
  PreBAPhase = 0,
  AnalysisPhase = 1,
  OptimizePhase = 2,
  PostAnalysisPhase = 3
};

/** @brief Kind of machine, from the processor identification. */
enum SystemType : uint32_t {
  Undetected = 0,
  Physical = 1,
  Virtual = 2,  // a hypervisor of unknown make
  HyperV = 3,
  VMware = 4,
  Xen = 5,
  KVM = 6,
};

}  // namespace KroAgent
