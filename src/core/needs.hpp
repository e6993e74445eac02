// What an algorithm reads of the view. Each algorithm declares its Needs
// beside its code; the binding prepares exactly that (converts the columns,
// marks the paths, derives the shared data) before it runs, and checked
// builds verify every column access against it.
#pragma once

#include <cstdint>

#include "view.hpp"

namespace scope {

struct Needs {
  Mask files = 0, symbols = 0, inbound = 0, outbound = 0;
  std::uint8_t path_bits = 0;  // path_bit flags
  bool line_counts = false;
  bool summaries = false;
  std::uint8_t derived = 0;  // derived:: flags

  friend constexpr Needs operator|(Needs a, Needs b) {
    return {a.files | b.files,
            a.symbols | b.symbols,
            a.inbound | b.inbound,
            a.outbound | b.outbound,
            static_cast<std::uint8_t>(a.path_bits | b.path_bits),
            a.line_counts || b.line_counts,
            a.summaries || b.summaries,
            static_cast<std::uint8_t>(a.derived | b.derived)};
  }
  // These needs plus the columns that their derived data is made from.
  constexpr Needs complete() const {
    Needs all = *this;
    if (derived & derived::members) all.derived |= derived::by_path;
    if (all.derived & derived::by_path) all.symbols |= bit(sym_f::path);
    if (all.derived & derived::members) all.symbols |= bits(sym_f::id, sym_f::kind, sym_f::start_line, sym_f::end_line);
    if (all.derived & derived::inbound_uses) {
      all.derived |= derived::inbound_terms;
      all.inbound |= bit(in_f::target_path);
      all.path_bits |= path_bit::import_resolved;
    }
    if (all.derived & derived::inbound_terms) {
      all.inbound |= bits(in_f::source_path, in_f::target_kind, in_f::resolution);
      all.path_bits |= path_bit::in_page | path_bit::test_source;
    }
    if (all.derived & derived::outbound_terms) {
      all.outbound |= bits(out_f::target_path, out_f::target_kind, out_f::resolution);
      all.path_bits |= path_bit::in_page;
    }
    return all;
  }
};

// Fills the derived data of `needs` that is not ready yet, or that was made
// with another vocabulary than `vocab`. The columns of needs.complete() must
// be loaded.
void derive(FactsView& view, const Vocab& vocab, const Needs& needs);

// While it lives, checked builds let the algorithms of this thread read
// only the columns of `needs` of this view. Permissions belong to the thread
// that declared them: calls on one thread nest (host code re-entering the
// module declares its own, and the outer one comes back when it ends), and
// calls on other threads, sharing the same view, never see them.
class Allowed {
 public:
  Allowed(const FactsView& view, const Needs& needs);
  ~Allowed();
  Allowed(const Allowed&) = delete;
  Allowed& operator=(const Allowed&) = delete;

 private:
  friend bool permitted(const Table& table, unsigned field);
  const Table* tables_[4];
  Mask masks_[4];
  const Allowed* outer_;
};

}  // namespace scope
