#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace hlp {
class JsonValue;
}  // namespace hlp

namespace KroAgent {

/**
 * @brief One installed product, as "Products.cfg" and its executable describe it.
 *
 * Fixed-size text fields, zero-terminated; a value too long for its field leaves it empty
 * rather than cut, so nobody acts on half a name.
 */
struct ProductRecord {
  uint32_t versionCount = 0;
  uint32_t packedVersion = 0;  // 0: unknown
  char versionText[16] = {};
  uint16_t id = 0;
  char name[32] = {};
  char displayName[32] = {};
  char url[32] = {};  // lower-cased
  char path[2048] = {};
  char patchLevel[32] = {};
};

/** @brief Products by ascending id, as the product query copies them out. */
using ProductMap = std::map<uint16_t, ProductRecord>;

/** @brief Result of the product query when no product is known. */
inline constexpr long kNoProducts = -1;

/**
 * @brief Packs up to four dot-separated decimal numbers as major & 255 << 24 | minor & 255 <<
 * 16 | build & 4095 << 4 | revision & 15. False for a text that does not start with a number,
 * has anything left after its last number, or has more than four parts.
 */
bool PackVersionText(std::string_view text, uint32_t& packed);

/**
 * @brief The module's table of installed products, loaded from "Products.cfg" in the Kesta
 * folder. One lock guards all of it: the module reloads while server threads query.
 */
class InstalledProducts {
 public:
  /** @brief The one table of the module, which the report routine reads. */
  static InstalledProducts& Instance();

  InstalledProducts();
  ~InstalledProducts();
  InstalledProducts(const InstalledProducts&) = delete;
  InstalledProducts& operator=(const InstalledProducts&) = delete;

  /**
   * @brief Takes the installation's folders (UTF-8). An empty `kestaFolder` keeps the current
   * one; a separator is appended when missing.
   */
  long SetFolders(const std::string& installFolder, const std::string& kestaFolder);
  /** @brief The Kesta folder, ending in a separator; by default the executable's grandparent. */
  std::string KestaFolder();

  /**
   * @brief Empties the table and reads "Products.cfg" again. 0x80000011 / 0x80000012 when the
   * file cannot be opened / read, 0x80000110 when it is empty, 0x80000114 when it is no product
   * list or no product loaded; otherwise the last product's status. A leading UTF-8 byte-order
   * mark is skipped; a file that is there but no product list is logged with where it breaks.
   */
  long ReloadProducts();

  /** @brief Copies every product into `out`; 0, or kNoProducts when there is none. */
  long QueryProducts(ProductMap& out);
  /** @brief 0x80000120 when no product has this id / this name (compared case-insensitively). */
  long FindById(uint16_t id, ProductRecord& out);
  long FindByName(std::string_view name, ProductRecord& out);
  /** @brief The packed version learned for this product and major version; 0x80000120 if none. */
  long FindVersion(uint16_t id, uint8_t major, uint32_t& packed);

 private:
  void EnsureKestaFolder();
  long Grow();
  /** @brief `why` says what is wrong when the text as a whole is no product list. */
  long ParseProducts(const std::string& text, std::string& why);
  long ParseProduct(const hlp::JsonValue& element, int32_t slot);
  long LearnVersion(ProductRecord& record, const hlp::JsonValue& element);
  void RecordVersion(ProductRecord& record, std::string_view text);

  std::mutex lock_;
  std::string kestaFolder_;
  bool kestaFolderKnown_ = false;
  std::string installFolder_;

  std::unique_ptr<ProductRecord[]> table_;
  int32_t count_ = 0;
  int32_t freeSlots_ = 0;
  int32_t capacity_ = 0;
  // Both point into table_ and are rebuilt whenever it moves.
  std::map<uint16_t, ProductRecord*> byId_;
  std::map<std::string, ProductRecord*> byName_;
  // Key: product id << 8 | major version; value: the packed version.
  std::map<uint16_t, uint32_t> versions_;
};

/**
 * @brief The browser UI's routine: the module version, the Kesta folder and every product in
 * id order as JSON. The answer is new (std::nothrow) char[length + 1]; free it with delete[].
 */
long GetInstalledProductsBrowser(const char* request, size_t requestLen, const char** response,
                                 size_t* responseLen);

namespace detail {

/**
 * @brief The "FileVersion" text of an executable's version resource on Windows; elsewhere the
 * text of the file's "KroAgent" ELF note (KroVersion.h). 0 with an empty text when the resource
 * names none; on POSIX 0x80000120 when an ELF file has no such note, 0x80000110 for a file that
 * is not one or is damaged, 0x80000011 when the file cannot be opened.
 */
long ReadFileVersion(const std::string& file, std::string& versionText);

/** @brief Whether a product path from the file stands on its own or hangs off the Kesta folder. */
bool IsAbsoluteProductPath(std::string_view path);

}  // namespace detail

}  // namespace KroAgent
