// Small builders of native views for the core's tests.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "view.hpp"

namespace scope::testing {

struct Sym {
  std::int64_t id;
  std::string path, name, kind;
  std::int64_t start = 1, end = 1;
  bool exported = true;
  std::string fqn = "";
};

struct In {
  std::string source;
  std::int64_t target;
  std::string target_path, target_name, target_kind, resolution;
  std::int64_t refs = 1;
};

// The view's columns, as the binding would fill them; the vocabulary of the
// host's stand-in sets.
struct Page {
  FactsView view;
  Vocab vocab;

  StrId s(const std::string& text) { return view.pool.intern(text); }

  void files(std::initializer_list<const char*> paths, bool resolved = true) {
    for (const char* path : paths) {
      StrId id = s(path);
      view.files.cols[file_f::path].push_back(id);
      view.files.cols[file_f::language].push_back(s("python"));
      view.files.cols[file_f::id].push_back(static_cast<std::int64_t>(view.files.rows) + 1);
      view.files.rows++;
      view.set_path_bit(id, path_bit::in_page | (resolved ? path_bit::import_resolved : 0));
    }
    view.files.loaded = ~0u;
  }
  void tests(std::initializer_list<const char*> paths) {
    for (const char* path : paths) view.set_path_bit(s(path), path_bit::test_source);
  }
  void symbols(const std::vector<Sym>& rows) {
    for (const Sym& r : rows) {
      auto& c = view.symbols.cols;
      c[sym_f::id].push_back(r.id);
      c[sym_f::path].push_back(s(r.path));
      c[sym_f::name].push_back(s(r.name));
      c[sym_f::fqn].push_back(s(r.fqn));
      c[sym_f::kind].push_back(s(r.kind));
      c[sym_f::start_line].push_back(r.start);
      c[sym_f::end_line].push_back(r.end);
      c[sym_f::is_export].push_back(r.exported);
      view.symbols.rows++;
    }
    view.symbols.loaded = ~0u;
    finish();
  }
  void inbound(const std::vector<In>& rows) {
    for (const In& r : rows) {
      auto& c = view.inbound.cols;
      c[in_f::source_path].push_back(s(r.source));
      c[in_f::target_id].push_back(r.target);
      c[in_f::target_path].push_back(s(r.target_path));
      c[in_f::target_name].push_back(s(r.target_name));
      c[in_f::target_kind].push_back(s(r.target_kind));
      c[in_f::resolution].push_back(s(r.resolution));
      c[in_f::refs].push_back(r.refs);
      view.inbound.rows++;
    }
    view.inbound.loaded = ~0u;
    finish();
  }

  // Kind and resolution sets as the host's stand-ins define them.
  void finish() {
    vocab = Vocab{};
    for (const char* k : {"class", "struct", "enum", "interface", "type"}) vocab.set(s(k), vocab_bit::type);
    for (const char* k : {"function", "method", "constructor"}) vocab.set(s(k), vocab_bit::callable);
    for (const char* k : {"attribute", "field", "property", "constant"}) vocab.set(s(k), vocab_bit::name_match);
    for (const char* r : {"import", "local"}) vocab.set(s(r), vocab_bit::evidence | vocab_bit::trusted);
    vocab.set(s("unique"), vocab_bit::trusted);
    for (const char* t : {"constant", "unique", "legacy"}) vocab.set_literals(view.pool, s(t));
  }
};

}  // namespace scope::testing
