// Text and JSON renderings of credential records.
#include "cli_format.h"

#include <glib.h>
#include <json-glib/json-glib.h>

#include <cstdio>
#include <memory>

#include "cli_names.h"

namespace kora::cli {
namespace {

template <class T>
struct GObjectUnref {
  void operator()(T* p) const noexcept { g_object_unref(p); }
};
using BuilderPtr = std::unique_ptr<JsonBuilder, GObjectUnref<JsonBuilder>>;
using GeneratorPtr = std::unique_ptr<JsonGenerator, GObjectUnref<JsonGenerator>>;

constexpr int kLabelWidth = 14;
constexpr const char* kIndent = "    ";
constexpr const char* kListSeparator = ", ";

std::string field_text(const Field& f) {
  if (const auto* s = std::get_if<std::string>(&f.value)) {
    return escaped(*s);
  }
  if (const auto* n = std::get_if<int64_t>(&f.value)) {
    return std::to_string(*n);
  }
  std::string joined;
  for (const std::string& item : std::get<std::vector<std::string>>(f.value)) {
    joined += (joined.empty() ? "" : kListSeparator) + escaped(item);
  }
  return joined;
}

void print_fields(FILE* out, const Record& r) {
  for (const Field& f : r.fields) {
    const std::string label = std::string(f.label) + ":";
    (void)std::fprintf(out, "%s%-*s %s\n", kIndent, kLabelWidth, label.c_str(), field_text(f).c_str());
  }
}

// JSON strings must be UTF-8; a planted name or an old certificate's subject need not be.
void add_string(JsonBuilder* b, const std::string& text) {
  gchar* valid = g_utf8_make_valid(text.c_str(), static_cast<gssize>(text.size()));
  json_builder_add_string_value(b, valid);
  g_free(valid);
}

void add_record(JsonBuilder* b, const Record& r, bool with_fields) {
  json_builder_begin_object(b);
  json_builder_set_member_name(b, "kind");
  json_builder_add_string_value(b, r.kind.word);
  json_builder_set_member_name(b, "name");
  add_string(b, r.name);
  for (const Field& f : with_fields ? r.fields : std::vector<Field>{}) {
    json_builder_set_member_name(b, f.key);
    if (const auto* s = std::get_if<std::string>(&f.value)) {
      add_string(b, *s);
    } else if (const auto* n = std::get_if<int64_t>(&f.value)) {
      json_builder_add_int_value(b, *n);
    } else {
      json_builder_begin_array(b);
      for (const std::string& item : std::get<std::vector<std::string>>(f.value)) {
        add_string(b, item);
      }
      json_builder_end_array(b);
    }
  }
  json_builder_end_object(b);
}

void print_json(FILE* out, JsonBuilder* b) {
  JsonNode* root = json_builder_get_root(b);
  GeneratorPtr gen(json_generator_new());
  json_generator_set_pretty(gen.get(), TRUE);
  json_generator_set_root(gen.get(), root);
  gchar* text = json_generator_to_data(gen.get(), nullptr);
  (void)std::fprintf(out, "%s\n", text);
  g_free(text);
  json_node_unref(root);
}

}  // namespace

std::string escaped(const std::string& text) {
  std::string out;
  for (const char c : text) {
    if (c == '\\') {
      out += "\\\\";
    } else if (g_ascii_isprint(c)) {
      out += c;
    } else {
      char hex[sizeof "\\xHH"];
      (void)std::snprintf(hex, sizeof hex, "\\x%02x", static_cast<unsigned char>(c));
      out += hex;
    }
  }
  return out;
}

void print_records(FILE* out, const std::vector<Record>& records, bool long_form, Format format) {
  if (format == Format::kJson) {
    BuilderPtr b(json_builder_new());
    json_builder_begin_array(b.get());
    for (const Record& r : records) {
      add_record(b.get(), r, long_form);
    }
    json_builder_end_array(b.get());
    print_json(out, b.get());
    return;
  }
  for (const Record& r : records) {
    (void)std::fprintf(out, "%-*s %s\n", kKindWordWidth, r.kind.word, escaped(r.name).c_str());
    if (long_form) {
      print_fields(out, r);
    }
  }
}

void print_record(FILE* out, const Record& record, Format format) {
  if (format == Format::kJson) {
    BuilderPtr b(json_builder_new());
    add_record(b.get(), record, true);
    print_json(out, b.get());
    return;
  }
  print_records(out, {record}, true, Format::kText);
}

}  // namespace kora::cli
