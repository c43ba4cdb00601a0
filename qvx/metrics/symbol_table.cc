#include "qvx/metrics/symbol_table.h"

namespace qvx::data::metrics {

SymbolTable::SymbolNotFoundError::SymbolNotFoundError(std::uint64_t symbol)
    : std::runtime_error("Symbol not found for key: " + std::to_string(symbol)) {}

std::uint64_t SymbolTable::intern(std::string_view name) {
  auto known = symbols_.find(name);
  const bool is_new = known == symbols_.end();
  if (is_new) known = symbols_.emplace(name, symbol_of(name)).first;
  const auto& [kept_name, symbol] = *known;
  ++reference_counts_[symbol];
  // A name may be left of a symbol that was forgotten with its other name.
  if (is_new) {
    names_.insert_or_assign(symbol, &kept_name);
  } else {
    names_.try_emplace(symbol, &kept_name);
  }
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
  return *found->second;
}

std::uint64_t& SymbolTable::reference_count(std::uint64_t symbol) {
  const auto found = reference_counts_.find(symbol);
  if (found == reference_counts_.end()) throw SymbolNotFoundError(symbol);
  return found->second;
}

std::uint64_t SymbolTable::reference_count(std::uint64_t symbol) const {
  const auto found = reference_counts_.find(symbol);
  if (found == reference_counts_.end()) throw SymbolNotFoundError(symbol);
  return found->second;
}

void SymbolTable::release(std::string_view name) {
  const auto known = symbols_.find(name);
  if (known == symbols_.end()) return;
  const auto count = reference_counts_.find(known->second);
  if (count != reference_counts_.end() && --count->second == 0) forget(known->second);
}

void SymbolTable::forget(std::uint64_t symbol) {
  reference_counts_.erase(symbol);
  const auto name = names_.find(symbol);
  if (name == names_.end()) return;
  symbols_.erase(symbols_.find(*name->second));
  names_.erase(name);
}

}  // namespace qvx::data::metrics
