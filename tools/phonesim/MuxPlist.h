// The few property-list operations that the usbmux and lockdown sides of the simulated iPhone
// need, over libplist, with the node's lifetime held by a unique_ptr. Every read tolerates a
// missing key or a node of another type: the bytes come from a client we do not trust.
#pragma once

#include <plist/plist.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

namespace lumo::phonesim {

struct PlistFree {
  void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using Plist = std::unique_ptr<void, PlistFree>;

inline Plist NewDict() { return Plist(plist_new_dict()); }

// XML or binary, as a client may send either; null when the bytes are neither.
inline Plist ParsePlist(const std::string& bytes) {
  plist_t node = nullptr;
  if (bytes.size() > 8 && bytes.compare(0, 8, "bplist00") == 0)
    plist_from_bin(bytes.data(), static_cast<uint32_t>(bytes.size()), &node);
  else if (!bytes.empty())
    plist_from_xml(bytes.data(), static_cast<uint32_t>(bytes.size()), &node);
  return Plist(node);
}

inline std::string ToXml(const Plist& node) {
  char* xml = nullptr;
  uint32_t size = 0;
  plist_to_xml(node.get(), &xml, &size);
  std::string text(xml != nullptr ? xml : "", xml != nullptr ? size : 0);
  if (xml != nullptr) plist_to_xml_free(xml);
  return text;
}

// The item at `key` of a dictionary, or null.
inline plist_t Item(const Plist& dict, const char* key) {
  if (!dict || plist_get_node_type(dict.get()) != PLIST_DICT) return nullptr;
  return plist_dict_get_item(dict.get(), key);
}

inline bool StringAt(const Plist& dict, const char* key, std::string& out) {
  plist_t node = Item(dict, key);
  if (node == nullptr || plist_get_node_type(node) != PLIST_STRING) return false;
  char* text = nullptr;
  plist_get_string_val(node, &text);
  out = text != nullptr ? text : "";
  std::free(text);
  return true;
}

inline bool UintAt(const Plist& dict, const char* key, uint64_t& out) {
  plist_t node = Item(dict, key);
  if (node == nullptr || plist_get_node_type(node) != PLIST_UINT) return false;
  plist_get_uint_val(node, &out);
  return true;
}

inline void Set(const Plist& dict, const char* key, plist_t item) { plist_dict_set_item(dict.get(), key, item); }
inline void SetString(const Plist& dict, const char* key, const std::string& value) {
  Set(dict, key, plist_new_string(value.c_str()));
}
inline void SetUint(const Plist& dict, const char* key, uint64_t value) { Set(dict, key, plist_new_uint(value)); }

}  // namespace lumo::phonesim
