#include "Probes.hpp"

#include <library/Book.hpp>

#include <kivra/UuidLiteral.hpp>
#include <kivra/services/Hashers.hpp>

#include <boost/uuid/string_generator.hpp>
#include <gtest/gtest.h>

#include <set>
#include <thread>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>
#include <type_traits>

namespace kivra {
namespace {

using test::library::Book;

static_assert(!std::is_convertible_v<Model, ModelElement> && !std::is_convertible_v<ModelElement, Model>,
              "unrelated handles do not convert");
static_assert(!std::is_convertible_v<ModelConstellation, Model>);
static_assert(std::is_nothrow_move_constructible_v<Model> && std::is_nothrow_move_assignable_v<ModelElement>);
static_assert(sizeof(Model) == sizeof(void *) && sizeof(Book) == sizeof(void *), "a handle is one pointer");

boost::uuids::uuid uuidOf(char const *text) { return boost::uuids::string_generator()(text); }

TEST(ElementImpl, UuidsAreDrawnAsVersionFourOrKeptBitForBit) {
    Model model = Model::createTransientModel();
    std::set<boost::uuids::uuid> seen;
    for (int i = 0; i < 100; ++i) {
        auto const id = Book::create(model)->getUuid();
        EXPECT_EQ(id.version(), boost::uuids::uuid::version_random_number_based);
        EXPECT_EQ(id.variant(), boost::uuids::uuid::variant_rfc_4122);
        EXPECT_TRUE(seen.insert(id).second);
    }
    // A given UUID, even of another version, is kept as it is.
    auto const id = uuidOf("a559b870-6892-3eec-8508-6ce5485e9784");
    EXPECT_EQ(Model::createTransientModel(id)->getUuid(), id);
    EXPECT_EQ(Book::create(model, id)->getUuid(), id);
}

TEST(ElementImpl, ThreadsAndForkedChildrenDrawDifferentUuids) {
    // Each thread and each forked child must have a random source of its own.
    std::vector<boost::uuids::uuid> drawn(4);
    std::vector<std::thread> threads;
    for (auto &slot : drawn)
        threads.emplace_back([&slot] { slot = ElementImpl::generateNewUuid(); });
    for (auto &thread : threads)
        thread.join();
    EXPECT_EQ(std::set<boost::uuids::uuid>(drawn.begin(), drawn.end()).size(), drawn.size());

    ElementImpl::generateNewUuid();
    int pipeEnds[2];
    ASSERT_EQ(pipe(pipeEnds), 0);
    pid_t const child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        boost::uuids::uuid const id = ElementImpl::generateNewUuid();
        _exit(write(pipeEnds[1], id.data, sizeof id.data) == sizeof id.data ? 0 : 1);
    }
    boost::uuids::uuid const parentId = ElementImpl::generateNewUuid();
    boost::uuids::uuid childId{};
    ASSERT_EQ(read(pipeEnds[0], childId.data, sizeof childId.data), ssize_t(sizeof childId.data));
    int status = 0;
    waitpid(child, &status, 0);
    close(pipeEnds[0]);
    close(pipeEnds[1]);
    EXPECT_NE(parentId, childId);
}

TEST(ElementImpl, HashesOfUuidsAndTexts) {
    // A UUID hashes to its first word; text to FNV-1a 64 of its bytes, UTF-16 as little-endian units.
    auto const id = uuidOf("0102030405060708090a0b0c0d0e0f10");
    EXPECT_EQ(services::hashers::KivraHasher<boost::uuids::uuid>()(id), 0x0807060504030201ull);
    EXPECT_EQ(std::hash<ModelElement>()(ModelElement()), 0u);
    Model model = Model::createTransientModel();
    EXPECT_EQ(std::hash<ModelElement>()(Book::create(model, id)), 0x0807060504030201ull);
    EXPECT_EQ(services::hashers::KivraHasher<std::string>()(""), 0xcbf29ce484222325ull);
    EXPECT_EQ(services::hashers::KivraHasher<std::string>()("a"), 0xaf63dc4c8601ec8cull);
    EXPECT_EQ(services::hashers::KivraHasher<std::u16string>()(u"a"), services::hashers::fnv1a("a\0", 2));
}

TEST(ElementImpl, HandleCountsFollowCopiesAndMoves) {
    Model model = Model::createTransientModel();
    Book book = Book::create(model);
    auto *impl = book.get();
    std::uint32_t const base = impl->referenceCount();
    {
        ModelElement copy = book;
        EXPECT_EQ(impl->referenceCount(), base + 1);
        ModelElement moved = std::move(copy);
        EXPECT_EQ(copy.get(), nullptr);
        EXPECT_EQ(impl->referenceCount(), base + 1);
        ModelElement other;
        other.swap(moved);
        EXPECT_EQ(other, book);
        ModelElement const &alias = other;
        other = alias; // self-assignment keeps the count
        EXPECT_EQ(impl->referenceCount(), base + 1);
    }
    EXPECT_EQ(impl->referenceCount(), base);
}

int invalidations = 0;
void countInvalidation(ElementImpl *element, AbstractOwnedCollection *) {
    if (element)
        ++invalidations;
}
void otherCallback(ElementImpl *, AbstractOwnedCollection *) { ADD_FAILURE() << "the second callback took over"; }

TEST(ElementImpl, FirstInvalidateCallbackWins) {
    ElementImpl::setInvalidateCallback(&countInvalidation);
    ElementImpl::setInvalidateCallback(&otherCallback);
    Model model = Model::createTransientModel();
    Book book = Book::create(model);
    int const before = invalidations;
    book->destroy();
    EXPECT_EQ(invalidations, before + 1);
}

TEST(ElementImpl, HandleMadeDuringDeletionCannotDeleteAgain) {
    using test::Probe;
    int const before = Probe::Impl::deletions;
    Probe::Impl::onDelete = [](Probe::Impl *dying) {
        ModelElement again = ModelElement::fromImpl(dying);
        ModelElement copy = again;
    };
    {
        Model model = Model::createTransientModel();
        Probe::create(model)->destroy();
    }
    Probe::Impl::onDelete = nullptr;
    EXPECT_EQ(Probe::Impl::deletions, before + 1);
}

TEST(UuidLiteral, ParsesDigitsAndSkipsDashesAnywhere) {
    constexpr auto id = parseUuidLiteral("42663bf5-8b3d-3c82-938a-ed709e37a269");
    static_assert(id.data[0] == 0x42 && id.data[15] == 0x69, "parsed at compile time");
    EXPECT_EQ(id, boost::uuids::string_generator()("42663bf5-8b3d-3c82-938a-ed709e37a269"));
    EXPECT_EQ(parseUuidLiteral("42663BF58B3D3C82938AED709E37A269"), id);
    EXPECT_EQ(parseUuidLiteral("--42663bf5-8b3d3c82-938aed709e37a2-69-"), id);
}

TEST(UuidLiteral, RefusesBadText) {
    struct Case {
        char const *text;
        char const *message;
    };
    constexpr Case cases[] = {
        {"42663bf5-8b3d-3c82-938a-ed709e37a26g", "invalid character in uuid literal"},
        {"{42663bf5-8b3d-3c82-938a-ed709e37a269}", "invalid character in uuid literal"},
        {"42663bf5-8b3d-3c82-938a-ed709e37a2", "did not write 16 bytes to uuid"},
        {"42663bf5-8b3d-3c82-938a-ed709e37a2690", "did not write 16 bytes to uuid"},
        {"", "did not write 16 bytes to uuid"},
    };
    for (auto const &c : cases) {
        SCOPED_TRACE(c.text);
        try {
            parseUuidLiteral(c.text);
            ADD_FAILURE() << "accepted";
        } catch (std::domain_error const &error) {
            EXPECT_STREQ(error.what(), c.message);
        }
    }
}

} // namespace
} // namespace kivra
