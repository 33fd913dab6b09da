#pragma once
/// \file
/// The message records of kivra's three catalogues, "kivra:messages", "kivra:io" and
/// "kivra:query": one class per id in `kivra::messages`, `kivra::io` and `kivra::query`,
/// constructed from its text arguments in order.
///
/// Example:
/// \code
///   try {
///       kivra::raise<kivra::messages::NoSuchProperty>(u"title", u"library::Book");
///   } catch (basalt::except::IUserException const &e) {
///       // dynamic_cast<IMsgIDException const &>(e).get_error_id() == "kivra:messages:NoSuchProperty"
///   }
/// \endcode

#include <basalt/except/Exception.hpp>

namespace kivra {

/// The exception raised for the message record `M`.
template <class M> using Error = basalt::except::Exception<M, std::exception, void>;

/// Builds the record `M` from its arguments and throws `Error<M>`.
template <class M, class... Arguments> [[noreturn]] void raise(Arguments const &...arguments) {
    throw Error<M>(M(arguments...));
}

namespace detail {
/// Registers kivra's catalogues with the platform once; records call it when made.
void registerMessageCatalogues();
} // namespace detail

#define KIVRA_MESSAGE_RECORD_(catalogue, Id, Parameters, Arguments)                                          \
    namespace catalogue {                                                                                   \
    /** The message record of catalogue "kivra:" #catalogue ", id " #Id ". */                               \
    class Id final : public ::basalt::BaseMsgID {                                                           \
    public:                                                                                                 \
        explicit Id Parameters : ::basalt::BaseMsgID("kivra:" #catalogue, #Id, {KIVRA_UNPAREN_ Arguments}) { \
            ::kivra::detail::registerMessageCatalogues();                                                   \
        }                                                                                                   \
    };                                                                                                      \
    }
#define KIVRA_UNPAREN_(...) __VA_ARGS__
#define KIVRA_MESSAGE_0(catalogue, Id, text) KIVRA_MESSAGE_RECORD_(catalogue, Id, (), ())
#define KIVRA_MESSAGE_1(catalogue, Id, a0, text)                                                             \
    KIVRA_MESSAGE_RECORD_(catalogue, Id, (::basalt::ustring const &a0), (a0))
#define KIVRA_MESSAGE_2(catalogue, Id, a0, a1, text)                                                         \
    KIVRA_MESSAGE_RECORD_(catalogue, Id, (::basalt::ustring const &a0, ::basalt::ustring const &a1), (a0, a1))
#include <kivra/Messages.def>
#undef KIVRA_MESSAGE_0
#undef KIVRA_MESSAGE_1
#undef KIVRA_MESSAGE_2
#undef KIVRA_MESSAGE_RECORD_
#undef KIVRA_UNPAREN_

} // namespace kivra
