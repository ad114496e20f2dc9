#pragma once

// Where the product keeps its files: the registry value that names the installation folder, and
// every file and folder the agent reads or writes under it. How a folder and a name are joined
// stays with each reader: some expect the separator the installer writes, some add their own.
namespace kro {

/** @brief Registry key of the installation values ("InstallDir", "ProductVersion"). */
inline constexpr const wchar_t* kSetupKey = L"SOFTWARE\\Norvane Technologies\\Arbalo\\Setup";
/** @brief The installation folder, under `kSetupKey`. */
inline constexpr const wchar_t* kInstallDirValue = L"InstallDir";
/** @brief The product's version text, under `kSetupKey`. */
inline constexpr const wchar_t* kProductVersionValue = L"ProductVersion";

/** @brief The enrolment settings, in the installation folder. */
inline constexpr const wchar_t* kDialHomeFile = L"DialHomeInfo.txt";
/** @brief The browser UI, in the installation folder. */
inline constexpr const wchar_t* kUiFolder = L"User Interface";
/** @brief The data folder, in the installation folder: the alerts, "Products.cfg", "Policy". */
inline constexpr const wchar_t* kDataFolder = L"Kesta";
inline constexpr const char* kDataFolderA = "Kesta";
/** @brief The settings files' folder, in the data folder. */
inline constexpr const wchar_t* kPolicyFolder = L"Policy";
/** @brief The installed products, in the data folder. */
inline constexpr const char* kProductsFile = "Products.cfg";
/** @brief The alerts' store, in the data folder. */
inline constexpr const char* kAlertsFile = "alerts.db";

}  // namespace kro
