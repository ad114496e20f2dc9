#pragma once

namespace KroAgent {

/** @brief The module's version text: "GetRoleVer", the products report and the host show it. */
inline constexpr char kVersionText[] = "7.0.222.0";

}  // namespace KroAgent
