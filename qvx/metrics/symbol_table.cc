#include "qvx/metrics/symbol_table.h"

namespace qvx::data::metrics {

SymbolTable::SymbolNotFoundError::SymbolNotFoundError(std::uint64_t symbol)
    : std::runtime_error("Symbol not found for key: " + std::to_string(symbol)) {}

std::uint64_t SymbolTable::intern(std::string_view name) {
  auto known = symbols_.find(name);
  const bool is_new = known == symbols_.end();
  if (is_new) known = symbols_.emplace(name, symbol_of(name)).first;
  const auto& [kept_name, symbol] = *known;
  try {
    // A name may be left of a symbol that was forgotten with its other name.
    Use& use = uses_.try_emplace(symbol, Use{&kept_name, 0}).first->second;
    if (is_new) use.name = &kept_name;
    ++use.count;
    return symbol;
  } catch (...) {
    symbols_.erase(known);
    throw;
  }
}

std::optional<std::uint64_t> SymbolTable::find(std::string_view name) const {
  const auto known = symbols_.find(name);
  if (known == symbols_.end()) return std::nullopt;
  return known->second;
}

const std::string& SymbolTable::name_of(std::uint64_t symbol) const {
  const auto found = uses_.find(symbol);
  if (found == uses_.end()) throw SymbolNotFoundError(symbol);
  return *found->second.name;
}

std::uint64_t& SymbolTable::reference_count(std::uint64_t symbol) {
  const auto found = uses_.find(symbol);
  if (found == uses_.end()) throw SymbolNotFoundError(symbol);
  return found->second.count;
}

std::uint64_t SymbolTable::reference_count(std::uint64_t symbol) const {
  const auto found = uses_.find(symbol);
  if (found == uses_.end()) throw SymbolNotFoundError(symbol);
  return found->second.count;
}

void SymbolTable::release(std::string_view name) {
  const auto known = symbols_.find(name);
  if (known == symbols_.end()) return;
  const auto use = uses_.find(known->second);
  if (use != uses_.end() && --use->second.count == 0) forget(known->second);
}

void SymbolTable::forget(std::uint64_t symbol) {
  const auto use = uses_.find(symbol);
  if (use == uses_.end()) return;
  symbols_.erase(symbols_.find(*use->second.name));
  uses_.erase(use);
}

}  // namespace qvx::data::metrics
