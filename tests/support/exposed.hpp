#pragma once

// Private members for tests that have to see (or make) a state that no sequence of calls shows. An explicit
// instantiation may name them; product code needs no hook.
//
//   OXTEST_EXPOSE(PMEM_Account, funded_pages);
//   account.*exposed(PMEM_Account_funded_pages{})     // a static member: *exposed(...)
//   OXTEST_EXPOSE_CONSTANT(BlockTree, kMaxChain);       // a constant, whose name has no underscore
namespace oxtest {

template <auto Member, typename Tag>
struct ExposedMember {
  friend constexpr auto exposed(Tag) { return Member; }
};

}  // namespace oxtest

#define OXTEST_EXPOSE_AS(Name, Member)   \
  struct Name {                          \
    friend constexpr auto exposed(Name); \
  };                                     \
  template struct ExposedMember<Member, Name>
#define OXTEST_EXPOSE(Class, member) OXTEST_EXPOSE_AS(Class##_##member, &oxpliv::Class::_##member)
#define OXTEST_EXPOSE_CONSTANT(Class, constant) OXTEST_EXPOSE_AS(Class##_##constant, &oxpliv::Class::constant)
