#include "qvx/support/json_value.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "qvx/support/json_text.h"

namespace qvx::json {
namespace {

// Up to this many members a search one by one is as fast as the index.
constexpr std::size_t kMembersWithoutIndex = 16;

}  // namespace

Object::Object() noexcept = default;
Object::Object(Object&& other) noexcept = default;
Object& Object::operator=(Object&& other) noexcept = default;
Object::~Object() = default;

// Copying element by element keeps the stack that a level of depth needs small, here and in Value.
Object::Object(const Object& other)
    : index_(other.index_ ? std::make_unique<Index>(*other.index_) : nullptr) {
  members_.reserve(other.members_.size());
  for (const Member& member : other.members_)
    members_.push_back({member.name, Value(member.value)});
}

Object& Object::operator=(const Object& other) {
  Object copy(other);
  *this = std::move(copy);
  return *this;
}

std::size_t Object::size() const {
  return members_.size();
}

const Value* Object::find(std::string_view name) const {
  const auto position = position_of(name);
  return position ? &members_[*position].value : nullptr;
}

Value* Object::find(std::string_view name) {
  const auto position = position_of(name);
  return position ? &members_[*position].value : nullptr;
}

void Object::set(std::string_view name, Value value) {
  if (Value* const existing = find(name)) {
    *existing = std::move(value);
  } else {
    append(name, std::move(value));
  }
}

bool Object::set_number(std::string_view name, double number) {
  auto value = Value::number(number);
  if (!value) return false;
  set(name, std::move(*value));
  return true;
}

bool Object::set_string(std::string_view name, std::string_view text) {
  auto value = Value::string(text);
  if (!value) return false;
  set(name, std::move(*value));
  return true;
}

bool Object::add(std::string_view name, Value value) {
  if (position_of(name)) return false;
  append(name, std::move(value));
  return true;
}

bool Object::set_dotted(std::string_view path, Value value) {
  Object* object = this;
  for (;;) {
    const std::size_t dot = path.find('.');
    if (dot == std::string_view::npos) {
      object->set(path, std::move(value));
      return true;
    }
    Value* const next = object->find(path.substr(0, dot));
    if (next == nullptr) break;
    object = next->as_object();
    if (object == nullptr) return false;
    path.remove_prefix(dot + 1);
  }
  // Built from the inside out, so that a failed allocation leaves nothing half made.
  for (std::size_t dot = path.rfind('.'); dot != std::string_view::npos; dot = path.rfind('.')) {
    Object parent;
    parent.append(path.substr(dot + 1), std::move(value));
    value = Value(std::move(parent));
    path = path.substr(0, dot);
  }
  object->append(path, std::move(value));
  return true;
}

const Value* Object::find_dotted(std::string_view path) const {
  const Object* object = this;
  for (std::size_t dot = path.find('.'); dot != std::string_view::npos; dot = path.find('.')) {
    object = object->object_at(path.substr(0, dot));
    if (object == nullptr) return nullptr;
    path.remove_prefix(dot + 1);
  }
  return object->find(path);
}

std::optional<bool> Object::boolean_at(std::string_view name) const {
  const Value* const value = find(name);
  return value != nullptr ? value->as_boolean() : std::nullopt;
}

std::optional<double> Object::number_at(std::string_view name) const {
  const Value* const value = find(name);
  return value != nullptr ? value->as_number() : std::nullopt;
}

const std::string* Object::string_at(std::string_view name) const {
  const Value* const value = find(name);
  return value != nullptr ? value->as_string() : nullptr;
}

const Array* Object::array_at(std::string_view name) const {
  const Value* const value = find(name);
  return value != nullptr ? value->as_array() : nullptr;
}

const Object* Object::object_at(std::string_view name) const {
  const Value* const value = find(name);
  return value != nullptr ? value->as_object() : nullptr;
}

std::optional<std::size_t> Object::position_of(std::string_view name) const {
  if (index_) {
    const auto found = index_->find(name);
    return found != index_->end() ? std::optional(found->second) : std::nullopt;
  }
  for (std::size_t i = 0; i < members_.size(); ++i)
    if (members_[i].name == name) return i;
  return std::nullopt;
}

void Object::append(std::string_view name, Value value) {
  // Everything that can throw comes before the first change.
  Member member{std::string(name), std::move(value)};
  if (members_.size() == members_.capacity()) members_.reserve(std::max<std::size_t>(4, 2 * members_.size()));
  if (!index_ && members_.size() == kMembersWithoutIndex) {
    auto index = std::make_unique<Index>();
    for (std::size_t i = 0; i < members_.size(); ++i)
      index->emplace(members_[i].name, i);
    index_ = std::move(index);
  }
  if (index_) index_->emplace(member.name, members_.size());
  members_.push_back(std::move(member));
}

Value::Value(Array elements) : kind_(Kind::array), array_(std::make_unique<Array>(std::move(elements))) {}

Value::Value(Object members) : kind_(Kind::object), object_(std::make_unique<Object>(std::move(members))) {}

Value::Value(const Value& other)
    : kind_(other.kind_),
      number_(other.number_),
      string_(other.string_ ? std::make_unique<std::string>(*other.string_) : nullptr),
      object_(other.object_ ? std::make_unique<Object>(*other.object_) : nullptr) {
  if (!other.array_) return;
  array_ = std::make_unique<Array>();
  array_->reserve(other.array_->size());
  for (const Value& element : *other.array_)
    array_->push_back(Value(element));
}

Value::Value(Value&& other) noexcept
    : kind_(std::exchange(other.kind_, Kind::null)),
      number_(other.number_),
      string_(std::move(other.string_)),
      array_(std::move(other.array_)),
      object_(std::move(other.object_)) {}

Value& Value::operator=(const Value& other) {
  return *this = Value(other);
}

Value& Value::operator=(Value&& other) noexcept {
  // By way of a third value, since the other one may be a part of this one.
  Value taken(std::move(other));
  std::swap(kind_, taken.kind_);
  std::swap(number_, taken.number_);
  string_.swap(taken.string_);
  array_.swap(taken.array_);
  object_.swap(taken.object_);
  return *this;
}

Value::~Value() {
  if (slot_count() > 0) dismantle();
}

std::optional<Value> Value::number(double value) {
  if (!std::isfinite(value)) return std::nullopt;
  return Value(Kind::number, value);
}

std::optional<Value> Value::string(std::string_view text) {
  if (!is_valid_utf8(text)) return std::nullopt;
  return raw_string(std::string(text));
}

Value Value::raw_string(std::string text) {
  Value value(Kind::string, 0);
  value.string_ = std::make_unique<std::string>(std::move(text));
  return value;
}

std::optional<bool> Value::as_boolean() const {
  return kind_ == Kind::boolean ? std::optional(number_ != 0) : std::nullopt;
}

std::optional<double> Value::as_number() const {
  return kind_ == Kind::number ? std::optional(number_) : std::nullopt;
}

std::size_t Value::slot_count() const {
  return array_ ? array_->size() : object_ ? object_->members_.size() : 0;
}

Value& Value::first_slot() {
  return array_ ? array_->front() : object_->members_.front().value;
}

Value& Value::last_slot() {
  return array_ ? array_->back() : object_->members_.back().value;
}

void Value::pop_slot() {
  if (array_) {
    array_->pop_back();
  } else {
    object_->members_.pop_back();
  }
}

// Empties the tree below without recursion and without memory of its own. While a container is being emptied
// its first slot holds its parent; the value that stood there waits in the parent's last slot, which the
// container left.
void Value::dismantle() noexcept {
  Value current = std::move(*this);
  for (std::size_t depth = 0;;) {
    const std::size_t kept = depth > 0 ? 1 : 0;
    if (current.slot_count() > kept) {
      Value& last = current.last_slot();
      if (last.slot_count() == 0) {
        current.pop_slot();
      } else {
        Value child = std::move(last);
        last = std::move(child.first_slot());
        child.first_slot() = std::move(current);
        current = std::move(child);
        ++depth;
      }
    } else if (depth > 0) {
      Value parent = std::move(current.first_slot());
      current.pop_slot();
      current = std::move(parent);
      --depth;
    } else {
      return;
    }
  }
}

bool matches(const Value& pattern, const Value& value) {
  if (pattern.kind() != value.kind()) return false;
  if (const Array* const elements = pattern.as_array()) {
    return elements->empty() || std::ranges::all_of(*value.as_array(), [&](const Value& element) {
             return matches(elements->front(), element);
           });
  }
  if (const Object* const members = pattern.as_object()) {
    const Object& object = *value.as_object();
    return object.size() >= members->size() &&
           std::ranges::all_of(members->members(), [&](const Member& member) {
             const Value* const found = object.find(member.name);
             return found != nullptr && matches(member.value, *found);
           });
  }
  return true;
}

}  // namespace qvx::json
