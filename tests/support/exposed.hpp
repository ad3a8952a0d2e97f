#pragma once

// Private members for tests that have to see (or make) a state that no sequence of calls shows. An explicit
// instantiation may name them; product code needs no hook.
//
//   OXTEST_EXPOSE(PMEM_Account, funded_pages);
//   account.*exposed(PMEM_Account_funded_pages{})     // a static member: *exposed(...)
namespace oxtest {

template <auto Member, typename Tag>
struct ExposedMember {
  friend constexpr auto exposed(Tag) { return Member; }
};

}  // namespace oxtest

#define OXTEST_EXPOSE(Class, member)                 \
  struct Class##_##member {                          \
    friend constexpr auto exposed(Class##_##member); \
  };                                                 \
  template struct ExposedMember<&oxpliv::Class::_##member, Class##_##member>
