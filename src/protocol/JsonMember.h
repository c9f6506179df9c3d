// Looking up a member of a phone's JSON object without creating it (operator[] on a non-const
// value would insert a null member, and find() takes a pointer range).
#pragma once

#include <json/value.h>

#include <cstring>

namespace lumo {
inline const Json::Value* FindMember(const Json::Value& object, const char* name) {
  if (!object.isObject()) return nullptr;
  return object.find(name, name + std::strlen(name));
}
}  // namespace lumo
