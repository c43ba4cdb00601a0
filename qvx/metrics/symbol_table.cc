#include "qvx/metrics/symbol_table.h"

namespace qvx::data::metrics {

SymbolTable::SymbolNotFoundError::SymbolNotFoundError(std::uint64_t symbol)
    : std::runtime_error("Symbol not found for key: " + std::to_string(symbol)) {}

std::uint64_t SymbolTable::intern(std::string_view name) {
  const auto known = symbols_.find(name);
  if (known != symbols_.end()) {
    ++reference_counts_[known->second];
    return known->second;
  }
  const std::uint64_t symbol = symbol_of(name);
  symbols_.emplace(name, symbol);
  names_.insert_or_assign(symbol, std::string(name));
  reference_counts_[symbol] = 1;
  return symbol;
}

std::optional<std::uint64_t> SymbolTable::find(std::string_view name) const {
  const auto known = symbols_.find(name);
  if (known == symbols_.end()) return std::nullopt;
  return known->second;
}

const std::string& SymbolTable::name_of(std::uint64_t symbol) const {
  const auto found = names_.find(symbol);
  if (found == names_.end()) throw SymbolNotFoundError(symbol);
  return found->second;
}

std::uint64_t& SymbolTable::reference_count(std::uint64_t symbol) {
  const auto found = reference_counts_.find(symbol);
  if (found == reference_counts_.end()) throw SymbolNotFoundError(symbol);
  return found->second;
}

}  // namespace qvx::data::metrics
