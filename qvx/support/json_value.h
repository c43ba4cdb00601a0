// JSON documents in memory: values, and objects whose members keep the order in which they were added.
//
// A value owns everything below it and copies deeply. NaN, the infinities and text that is not UTF-8 have no
// value. What makes, adds or copies may throw std::bad_alloc and then leaves what it was called on as it was;
// nothing else throws. Pointers into an object or an array are valid until something is added to it.
#pragma once

#include <concepts>
#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qvx::json {

class Value;
struct Member;
using Array = std::vector<Value>;

class Object {
 public:
  Object() noexcept;
  Object(const Object& other);
  Object(Object&& other) noexcept;
  Object& operator=(const Object& other);
  Object& operator=(Object&& other) noexcept;
  ~Object();

  std::size_t size() const;
  bool empty() const { return size() == 0; }
  const std::vector<Member>& members() const { return members_; }

  // The member's value, or null when there is none of this name.
  const Value* find(std::string_view name) const;
  Value* find(std::string_view name);

  // A member that exists keeps its place and takes the new value; any other is appended.
  void set(std::string_view name, Value value);
  // The same with a value made here; false, with nothing changed, when it cannot be made.
  [[nodiscard]] bool set_number(std::string_view name, double number);
  [[nodiscard]] bool set_string(std::string_view name, std::string_view text);

  // Appends; false, with nothing changed, when a member of this name exists.
  [[nodiscard]] bool add(std::string_view name, Value value);

  // A name "a.b.c" stands for member "c" of object "b" of object "a". Setting makes the objects that are
  // missing on the way; false, with nothing changed, when something that is not an object is in the way.
  [[nodiscard]] bool set_dotted(std::string_view path, Value value);
  const Value* find_dotted(std::string_view path) const;

  // The member when it exists and is of this kind, else null or nothing.
  std::optional<bool> boolean_at(std::string_view name) const;
  std::optional<double> number_at(std::string_view name) const;
  const std::string* string_at(std::string_view name) const;
  const Array* array_at(std::string_view name) const;
  const Object* object_at(std::string_view name) const;

 private:
  // Positions by name, kept once the members are too many to search one by one. A tree, so that no choice of
  // names makes it slow.
  using Index = std::map<std::string, std::size_t, std::less<>>;

  friend class Value;

  std::optional<std::size_t> position_of(std::string_view name) const;
  void append(std::string_view name, Value value);

  std::vector<Member> members_;
  std::unique_ptr<Index> index_;
};

enum class Kind { null, boolean, number, string, array, object };

class Value {
 public:
  // Null, and so is a value that was moved from.
  Value() noexcept = default;
  explicit Value(Array elements);
  explicit Value(Object members);
  Value(const Value& other);
  Value(Value&& other) noexcept;
  Value& operator=(const Value& other);
  Value& operator=(Value&& other) noexcept;
  // Needs no more stack for a deep value than for a flat one.
  ~Value();

  static Value boolean(bool value) { return {Kind::boolean, value ? 1.0 : 0.0}; }
  // Nothing for NaN and the infinities.
  static std::optional<Value> number(double value);
  // The nearest double, which is how JSON holds every number.
  template <std::integral T>
  static Value integer(T value) {
    return {Kind::number, static_cast<double>(value)};
  }
  // Nothing when the text is not valid UTF-8.
  static std::optional<Value> string(std::string_view text);
  // A string of any bytes, for text that was read from a document, where it is kept as it is.
  static Value raw_string(std::string text);

  Kind kind() const { return kind_; }
  bool is_null() const { return kind_ == Kind::null; }

  // The content when the value is of this kind, else null or nothing.
  std::optional<bool> as_boolean() const;
  std::optional<double> as_number() const;
  const std::string* as_string() const { return string_.get(); }
  const Array* as_array() const { return array_.get(); }
  Array* as_array() { return array_.get(); }
  const Object* as_object() const { return object_.get(); }
  Object* as_object() { return object_.get(); }

 private:
  Value(Kind kind, double number) noexcept : kind_(kind), number_(number) {}

  // The values right below this one.
  std::size_t slot_count() const;
  Value& first_slot();
  Value& last_slot();
  void pop_slot();
  void dismantle() noexcept;

  Kind kind_ = Kind::null;
  double number_ = 0;  // a boolean is 0 or 1
  // The one that the kind asks for is set.
  std::unique_ptr<std::string> string_;
  std::unique_ptr<Array> array_;
  std::unique_ptr<Object> object_;
};

struct Member {
  std::string name;
  Value value;
};

// True when the value has the shape of the pattern: the same kind; of an object every member of the pattern,
// each matching; of an array only elements that match the pattern's first. An empty array or object in the
// pattern stands for any array or object.
bool matches(const Value& pattern, const Value& value);

}  // namespace qvx::json
