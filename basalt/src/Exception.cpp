#include <basalt/except/Exception.hpp>
#include <basalt/i18n/Unicode.hpp>

#include <map>
#include <mutex>
#include <shared_mutex>

namespace basalt {

namespace {

struct CatalogueTable {
    std::shared_mutex mutex;
    std::map<std::string, except::MessageCatalogues::Lookup, std::less<>> lookups;
};

CatalogueTable &catalogues() {
    // Never destroyed: exceptions may be formatted while static objects are torn down.
    static auto *table = new CatalogueTable;
    return *table;
}

void appendArgument(ustring &out, MessageArgument const &argument) {
    if (auto const *text = std::get_if<ustring>(&argument))
        out += *text;
    else
        out += i18n::utf8_to_ustring(std::get<std::string>(argument));
}

} // namespace

ustring BaseMsgID::formatMessage() const {
    std::u16string_view const pattern = except::MessageCatalogues::find(catalogue_, id_);
    if (!pattern.empty())
        return except::MessageCatalogues::format(pattern, arguments_);

    // No catalogue text: still say everything the record knows.
    ustring text = i18n::utf8_to_ustring(get_error_id());
    char16_t const *separator = u"(";
    for (auto const &argument : arguments_) {
        text += separator;
        appendArgument(text, argument);
        separator = u", ";
    }
    if (!arguments_.empty())
        text += u')';
    return text;
}

namespace except {

std::string messageToUtf8(ustring const &text) { return i18n::ustring_to_utf8(text); }

void MessageCatalogues::registerCatalogue(std::string const &catalogue, Lookup lookup) {
    auto &table = catalogues();
    std::unique_lock lock(table.mutex);
    table.lookups[catalogue] = lookup;
}

std::u16string_view MessageCatalogues::find(std::string_view catalogue, std::string_view id) {
    auto &table = catalogues();
    Lookup lookup = nullptr;
    {
        std::shared_lock lock(table.mutex);
        auto const found = table.lookups.find(catalogue);
        if (found == table.lookups.end())
            return {};
        lookup = found->second;
    }
    return lookup(id);
}

ustring MessageCatalogues::format(std::u16string_view pattern, std::vector<MessageArgument> const &arguments) {
    ustring out;
    out.reserve(pattern.size() + 16 * arguments.size());
    for (std::size_t i = 0; i < pattern.size(); ++i) {
        char16_t const c = pattern[i];
        if ((c == u'{' || c == u'}') && i + 1 < pattern.size() && pattern[i + 1] == c) {
            out += c;
            ++i;
            continue;
        }
        if (c == u'{') {
            std::size_t j = i + 1;
            std::size_t index = 0;
            while (j < pattern.size() && pattern[j] >= u'0' && pattern[j] <= u'9')
                index = index * 10 + (pattern[j++] - u'0');
            if (j > i + 1 && j < pattern.size() && pattern[j] == u'}' && index < arguments.size()) {
                appendArgument(out, arguments[index]);
                i = j;
                continue;
            }
        }
        out += c;
    }
    return out;
}

} // namespace except
} // namespace basalt
