#include <kivra/Messages.hpp>

#include <algorithm>
#include <iterator>

namespace kivra::detail {

namespace {

struct CatalogueEntry {
    std::string_view id;
    std::u16string_view text;
};

#define KIVRA_MESSAGE_0(catalogue, Id, text) {#Id, u"" text},
#define KIVRA_MESSAGE_1(catalogue, Id, a0, text) {#Id, u"" text},
#define KIVRA_MESSAGE_2(catalogue, Id, a0, a1, text) {#Id, u"" text},
#define KIVRA_CATALOGUE_BEGIN(catalogue) constexpr CatalogueEntry catalogue##Texts[] = {
#define KIVRA_CATALOGUE_END(catalogue) };
#include <kivra/Messages.def>
#undef KIVRA_MESSAGE_0
#undef KIVRA_MESSAGE_1
#undef KIVRA_MESSAGE_2

template <std::size_t N> std::u16string_view lookUp(CatalogueEntry const (&entries)[N], std::string_view id) {
    auto const found = std::find_if(std::begin(entries), std::end(entries),
                                    [id](CatalogueEntry const &entry) { return entry.id == id; });
    return found == std::end(entries) ? std::u16string_view{} : found->text;
}

} // namespace

void registerMessageCatalogues() {
    static bool const registered = [] {
        using basalt::except::MessageCatalogues;
        MessageCatalogues::registerCatalogue("kivra:messages", [](std::string_view id) { return lookUp(messagesTexts, id); });
        MessageCatalogues::registerCatalogue("kivra:io", [](std::string_view id) { return lookUp(ioTexts, id); });
        MessageCatalogues::registerCatalogue("kivra:query", [](std::string_view id) { return lookUp(queryTexts, id); });
        return true;
    }();
    (void)registered;
}

} // namespace kivra::detail
