// Names as numbers: the symbol of a name is its hash, the same in every run.
#pragma once

#include <boost/container_hash/hash.hpp>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>

namespace qvx::data::metrics {

// Names, their symbols and how often each was interned. Names with equal hashes share one symbol, and the
// later name takes its place in the way back; that is accepted.
class SymbolTable {
  struct NameHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view name) const { return boost::hash<std::string_view>{}(name); }
  };

 public:
  // "Symbol not found for key: " and the symbol in decimal.
  class SymbolNotFoundError : public std::runtime_error {
   public:
    explicit SymbolNotFoundError(std::uint64_t symbol);
  };

  SymbolTable() = default;
  SymbolTable(const SymbolTable&) = delete;
  SymbolTable& operator=(const SymbolTable&) = delete;

  // The boost string hash.
  static std::uint64_t symbol_of(std::string_view name) { return NameHash{}(name); }

  // The symbol of the name, whose reference count grows by one. Throws std::bad_alloc; nothing is interned
  // then.
  std::uint64_t intern(std::string_view name);

  // The symbol of a name that was interned.
  std::optional<std::uint64_t> find(std::string_view name) const;

  // Throws SymbolNotFoundError. The reference stays valid until the symbol is forgotten.
  const std::string& name_of(std::uint64_t symbol) const;

  // How often a name of the symbol was interned. Whoever keeps an interned symbol may count a further use of
  // it through the reference, which is valid until the symbol is forgotten. Throw SymbolNotFoundError.
  std::uint64_t& reference_count(std::uint64_t symbol);
  std::uint64_t reference_count(std::uint64_t symbol) const;

  // Takes one use of an interned name back; the last one forgets it.
  void release(std::string_view name);

  // Forgets the symbol and its name, however often it was interned.
  void forget(std::uint64_t symbol);

  std::size_t size() const { return symbols_.size(); }

  // All names with their symbols.
  auto begin() const { return symbols_.begin(); }
  auto end() const { return symbols_.end(); }

 private:
  struct Use {
    const std::string* name;  // key of symbols_
    std::uint64_t count;
  };

  std::unordered_map<std::string, std::uint64_t, NameHash, std::equal_to<>> symbols_;
  std::unordered_map<std::uint64_t, Use> uses_;
};

}  // namespace qvx::data::metrics
