// The table of a group's variables, and defining them from it. Size, type and offset come from the
// member of the data block that a variable stands for. What could not be defined or published, for
// want of memory, is made up for by the next poll.
#ifndef VEX_COMMON_VARIABLES_H
#define VEX_COMMON_VARIABLES_H

#include <stddef.h>
#include <stdint.h>

#include "platform/framework.h"

// One variable of a group. A table is made of READ_ONLY() and its like, below.
struct variable {
  const char *name;
  int size;
  int type;       // enum variable_type
  int access;     // enum variable_access
  size_t offset;  // of the value in the data block
  set_handler_fn set_handler;
};

// A group's variables; the index in the table is the slot. The table must live as long as the
// process.
struct variable_table {
  const variable *first;
  int count;

  template <size_t N>
  constexpr variable_table(const variable (&table)[N])  // NOLINT(google-explicit-constructor)
      : first(table), count(static_cast<int>(N)) {}
};

// ---- Lines of a table ---------------------------------------------------------------------------

// The type of variable that a member of a data block stands for. A member of any other type does
// not compile.
template <typename Member>
struct variable_type_of;
template <>
struct variable_type_of<int32_t> {
  static constexpr int type = VAR_INTEGER;
};
template <>
struct variable_type_of<uint32_t> {
  static constexpr int type = VAR_INTEGER;
};
template <size_t N>
struct variable_type_of<char[N]> {
  static constexpr int type = VAR_DISPLAY_STRING;
};
template <size_t N>
struct variable_type_of<uint8_t[N]> {
  static constexpr int type = VAR_OCTET_STRING;
};
// An element of an array of numbers.
template <typename Member>
struct variable_type_of<Member &> : variable_type_of<Member> {};

template <typename Member>
constexpr variable variable_of(const char *name, size_t offset, int access,
                               set_handler_fn set_handler) {
  return {
      name,       static_cast<int>(sizeof(Member)), variable_type_of<Member>::type, access, offset,
      set_handler};
}

template <typename Member, int Length>
constexpr variable octets_of(const char *name, size_t offset) {
  static_assert(variable_type_of<Member>::type == VAR_OCTET_STRING);
  static_assert(Length > 0 && Length < static_cast<int>(sizeof(Member)));
  return {name, Length, VAR_OCTET_STRING, ACCESS_READ_ONLY, offset, nullptr};
}

// Never defined: only types are asked of what it returns.
template <typename Block>
Block &any();

// Macros, because only a member's name tells both its type and its offset. The member may be one of
// a member's, or an element.
#define MEMBER_TYPE(block, member) decltype(any<block>().member)

// A variable that managers read.
#define READ_ONLY(name, block, member) \
  variable_of<MEMBER_TYPE(block, member)>(name, offsetof(block, member), ACCESS_READ_ONLY, nullptr)

// One that they also set. With a null handler the framework stores and publishes what is set.
#define SETTABLE(name, block, member, set_handler)                                        \
  variable_of<MEMBER_TYPE(block, member)>(name, offsetof(block, member), ACCESS_WRITABLE, \
                                          set_handler)

// The first `length` octets of a member, which has padding behind them.
#define LEADING_OCTETS(name, block, member, length) \
  octets_of<MEMBER_TYPE(block, member), length>(name, offsetof(block, member))

// ---- Defining and publishing --------------------------------------------------------------------

// Calls init_info() for every slot of the object in order. Slots that failed are defined, and the
// object published, by a later repair_objects(). Agent thread, as what follows.
void define_variables(registry_object *object, const variable_table &table);

// log_data() for an object that no later pass publishes again by itself: when it fails, a later
// repair_objects() does it.
void publish_once(registry_object *object);

// The end of every poll: tries again what failed above, for objects that are still alive.
void repair_objects();

#endif
