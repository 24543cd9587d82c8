#pragma once

/**
 * Reaches a private member of a class under test, for what has no other way to be seen; stands
 * outside of all namespaces:
 *
 *     KX_PRIVATE_MEMBER(CheckTimer, updater::Updater, QTimer, checkTimer)
 *     ...  kxtest::Access(kxtest::CheckTimer(), updater).interval()
 *
 * An explicit instantiation may name private members, which makes this plain C++.
 */
#define KX_PRIVATE_MEMBER(Tag, Class, Type, member)                                                \
    namespace kxtest {                                                                             \
    struct Tag                                                                                     \
    {                                                                                              \
        using Pointer = Type Class::*;                                                             \
        friend Pointer MemberOf(Tag);                                                              \
    };                                                                                             \
    template struct PrivateMember<Tag, &Class::member>;                                            \
    }

namespace kxtest {

template <typename Tag, typename Tag::Pointer pointer>
struct PrivateMember
{
    friend typename Tag::Pointer MemberOf(Tag) { return pointer; }
};

template <typename Tag, typename Class>
auto& Access(Tag tag, Class& object)
{
    return object.*MemberOf(tag);
}

} // namespace kxtest
