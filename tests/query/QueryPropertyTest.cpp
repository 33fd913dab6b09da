// Random queries over random libraries: the engine's rows must be those of a brute-force
// walk over every tuple of elements, and in the same order as its own plain evaluation,
// which scans without the class filter and joins without hashing.

#include "query/NativeKivraQuery.hpp"

#include <Flavours.hpp>

#include <kivra/meta/Class.hpp>
#include <kivra/meta/Property.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace kivra::query {
namespace {

using namespace kivra::test;
using R = ValueMatchRelation;
using Mode = SearchClassMatchMode;
using Row = std::vector<ModelElement>;
using Tuple = std::vector<ModelElement::Impl const *>;

class RandomQueries : public ::testing::TestWithParam<Flavour const *> {
protected:
    Flavour const &lib() const { return *GetParam(); }
    meta::Property p(std::u16string_view name) const {
        bool const ofAuthor = name == u"name" || name == u"books" || name == u"coauthored";
        return (ofAuthor ? lib().author : lib().book)->getPropertyByName(basalt::ustring(name));
    }
    std::size_t pick(std::size_t n) { return std::uniform_int_distribution<std::size_t>(0, n - 1)(random); }

    void makeLibrary() {
        static char16_t const *const names[] = {u"Ann", u"Bob", u"Cid", u"Dune", u"Emma"};
        std::size_t const authorCount = pick(6), bookCount = pick(16);
        for (std::size_t i = 0; i < authorCount; ++i) {
            ModelElement const author = lib().author->instantiate(model);
            set(author, u"name", text(names[pick(3)]));
            authors.push_back(author);
        }
        for (std::size_t i = 0; i < bookCount; ++i) {
            ModelElement const book = (pick(3) == 0 ? lib().novel : lib().book)->instantiate(model);
            set(book, u"title", text(names[pick(5)]));
            set(book, u"pages", Value(std::int32_t(100 * (1 + pick(3)))));
            if (!authors.empty() && pick(3) != 0)
                set(book, u"writer", ref(authors[pick(authors.size())]));
            for (ModelElement const &author : authors)
                if (pick(3) == 0)
                    many(book, u"coauthors").genericAdd(author);
        }
    }

    static std::int32_t pages(ModelElement const &e) { return get(e, u"pages").get<std::int32_t>(); }
    static basalt::ustring title(ModelElement const &e) { return get(e, u"title").get<basalt::ustring>(); }
    static basalt::ustring name(ModelElement const &e) { return get(e, u"name").get<basalt::ustring>(); }

    /// A random constraint on `instance`, given to the query and to the reference.
    void constrain(std::size_t instance, bool isAuthor, ReflectiveDisjunction *group) {
        auto const add = [&](meta::Property const &property, R relation, Value const &value) {
            if (group)
                group->addPropertyRelationValue(property, relation, value, instance);
            else
                q->addPropertyRelationValue(property, relation, value, instance);
        };
        static R const relations[] = {R::equal, R::notEqual, R::less, R::greaterOrEqual};
        R const relation = relations[pick(4)];
        std::function<bool(int)> const holds = [relation](int order) {
            switch (relation) {
            case R::equal: return order == 0;
            case R::notEqual: return order != 0;
            case R::less: return order < 0;
            default: return order >= 0;
            }
        };
        std::function<bool(Row const &)> test;
        if (isAuthor || pick(2) == 0) {
            basalt::ustring const constant = pick(2) ? u"Bob" : u"Dune";
            add(p(isAuthor ? u"name" : u"title"), relation, Value(constant));
            test = [=](Row const &row) {
                return holds((isAuthor ? name(row[instance]) : title(row[instance])).compare(constant));
            };
        } else {
            std::int32_t const constant = static_cast<std::int32_t>(100 * (1 + pick(3)));
            add(p(u"pages"), relation, Value(constant));
            test = [=](Row const &row) { return holds((pages(row[instance]) > constant) - (pages(row[instance]) < constant)); };
        }
        if (group)
            alternatives.push_back(test);
        else
            conditions.push_back(test);
    }

    /// A random join of two instances, given to the query and to the reference.
    void join(std::size_t x, std::size_t y, bool xAuthor, bool yAuthor) {
        if (xAuthor && yAuthor)
            return;
        if (xAuthor || yAuthor) {
            std::size_t const book = xAuthor ? y : x, author = xAuthor ? x : y;
            switch (pick(5)) {
            case 0:
                q->addAssociatedObject(p(u"writer"), book, author);
                conditions.push_back([=](Row const &r) { return element(r[book], u"writer") == r[author]; });
                break;
            case 1:
                q->addAssociatedObject(p(u"coauthors"), book, author);
                conditions.push_back([=](Row const &r) { return many(r[book], u"coauthors").genericContains(r[author]); });
                break;
            case 2:
                // The far ends, held by the author: a sequence and a set.
                q->addAssociatedObject(p(u"books"), author, book);
                conditions.push_back([=](Row const &r) { return many(r[author], u"books").genericContains(r[book]); });
                break;
            case 3:
                q->addAssociatedObject(p(u"coauthored"), author, book);
                conditions.push_back([=](Row const &r) { return many(r[author], u"coauthored").genericContains(r[book]); });
                break;
            default:
                q->addPropertyRelationProperty(p(u"title"), book, R::equal, p(u"name"), author);
                conditions.push_back([=](Row const &r) { return title(r[book]) == name(r[author]); });
            }
            return;
        }
        if (pick(2)) {
            q->addPropertyRelationProperty(p(u"pages"), x, R::equal, p(u"pages"), y);
            conditions.push_back([=](Row const &r) { return pages(r[x]) == pages(r[y]); });
        } else {
            q->addPropertyRelationProperty(p(u"title"), x, R::less, p(u"title"), y);
            conditions.push_back([=](Row const &r) { return title(r[x]) < title(r[y]); });
        }
    }

    /// Every tuple of elements that passes everything, sorted.
    std::vector<Tuple> reference(std::vector<meta::Class> const &classes, std::vector<Mode> const &modes) const {
        std::vector<ModelElement> const all = model->getAllElements();
        std::vector<Tuple> out;
        std::size_t const n = classes.size();
        Row row(n);
        std::function<void(std::size_t)> walk = [&](std::size_t k) {
            if (k == n) {
                for (auto const &test : conditions)
                    if (!test(row))
                        return;
                if (!alternatives.empty() &&
                    std::none_of(alternatives.begin(), alternatives.end(), [&](auto const &test) { return test(row); }))
                    return;
                Tuple tuple;
                for (ModelElement const &e : row)
                    tuple.push_back(e.get());
                out.push_back(tuple);
                return;
            }
            for (ModelElement const &e : all) {
                meta::Class const &cls = e->getMetaClass();
                bool const isInstance = cls == classes[k] || (modes[k] == Mode::ClassOrSubclass &&
                                                               classes[k] == lib().book && cls == lib().novel);
                if (!isInstance)
                    continue;
                row[k] = e;
                walk(k + 1);
            }
        };
        walk(0);
        std::sort(out.begin(), out.end());
        return out;
    }

    static std::vector<Tuple> tuples(ReflectiveQuery &query) {
        std::vector<Tuple> out;
        Row row;
        for (auto it = query.execute({}); it->next(row);) {
            Tuple tuple;
            for (ModelElement const &e : row)
                tuple.push_back(e.get());
            out.push_back(tuple);
        }
        return out;
    }

    std::mt19937 random;
    Model model = Model::createTransientModel();
    std::vector<ModelElement> authors;
    std::unique_ptr<ReflectiveQuery> q;
    std::vector<std::function<bool(Row const &)>> conditions, alternatives;
};

TEST_P(RandomQueries, GiveTheRowsOfABruteForceWalkInThePlainOrder) {
    for (unsigned seed = 1; seed <= 150; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        random.seed(seed);
        model = Model::createTransientModel();
        authors.clear();
        conditions.clear();
        alternatives.clear();
        makeLibrary();
        q = createNativeQuery(model);

        std::size_t const n = 1 + pick(3);
        std::vector<meta::Class> classes;
        std::vector<Mode> modes;
        std::vector<bool> isAuthor;
        for (std::size_t i = 0; i < n; ++i) {
            std::size_t const kind = pick(3);
            classes.push_back(kind == 0 ? lib().author : kind == 1 ? lib().novel : lib().book);
            modes.push_back(pick(2) ? Mode::ExactClass : Mode::ClassOrSubclass);
            isAuthor.push_back(kind == 0);
            q->addSearchClass(classes.back(), modes.back());
        }
        for (std::size_t i = 0; i < n; ++i)
            if (pick(3) == 0)
                constrain(i, isAuthor[i], nullptr);
        for (std::size_t x = 0; x < n; ++x)
            for (std::size_t y = 0; y < n; ++y)
                if (x != y && pick(2) == 0)
                    join(x, y, isAuthor[x], isAuthor[y]);
        if (pick(3) == 0) {
            ReflectiveDisjunction *const group = q->createDisjunction();
            for (std::size_t c = 1 + pick(2); c > 0; --c) {
                std::size_t const i = pick(n);
                constrain(i, isAuthor[i], group);
            }
            group->finish();
        }

        std::vector<Tuple> rows = tuples(*q);
        std::vector<Tuple> all = rows;
        std::sort(all.begin(), all.end());
        ASSERT_EQ(all, reference(classes, modes));

        // The same query, evaluated plainly: the same rows in the same order, also once
        // sorted and cut.
        NativeKivraQuery plain;
        plain.plainEvaluation = true;
        plain.setModel(model);
        auto const compare = [&] {
            auto &native = static_cast<NativeKivraQuery &>(*q);
            native.retarget(plain);
            plain.setResultOffset(native.offset);
            ASSERT_EQ(tuples(*q), tuples(plain));
        };
        compare();
        std::size_t const sorted = pick(n);
        q->sortByProperty(p(isAuthor[sorted] ? u"name" : u"title"), sorted,
                          pick(2) ? SortDirection::Ascending : SortDirection::Descending);
        q->setResultOffset(pick(3));
        q->setResultLimit(pick(4));
        compare();
    }
}

INSTANTIATE_TEST_SUITE_P(Flavours, RandomQueries, ::testing::Values(&generatedLibrary(), &runtimeLibrary()),
                         [](auto const &info) { return info.param->name; });

} // namespace
} // namespace kivra::query
