// Reading and writing the texts of integers, doubles and UUIDs through their serializers:
// a number costs no allocation beyond its result; a 36-character UUID text is one. A field
// of a data type value is read without allocating; writing one copies the object.
#include <kivra/Value.hpp>
#include <kivra/meta/PrimitiveType.hpp>
#include <kivra/meta/PropertySerializer.hpp>
#include <kivra/meta/PropertySerializerRegistry.hpp>
#include <kivra/meta/MetaPackageMeta.hpp>
#include <kivra/meta/StandardTypes.hpp>
#include <kivra/meta/VersionInfo.hpp>

#include "AllocationCounter.hpp"

#include <benchmark/benchmark.h>

namespace {

using basalt::ustring;
using kivra::Value;
using kivra::meta::PropertySerializer;
using kivra::meta::PropertySerializerRegistry;
using kivra::meta::StandardTypes;
using kivra::meta::Type;

PropertySerializer const &serializerOf(Type const &type) {
    return *PropertySerializerRegistry::getInstance().getPropertySerializer(type, "");
}

void countAllocations(benchmark::State &state, std::size_t before) {
    state.counters["allocs/op"] = double(kivra::bench::allocations() - before) / double(state.iterations());
}

void parse(benchmark::State &state, Type const &type, ustring const &text) {
    PropertySerializer const &serializer = serializerOf(type);
    std::size_t const before = kivra::bench::allocations();
    for (auto _ : state) {
        Value value = serializer.parseValue(text, type);
        benchmark::DoNotOptimize(value);
    }
    countAllocations(state, before);
}

void write(benchmark::State &state, Type const &type, ustring const &text) {
    PropertySerializer const &serializer = serializerOf(type);
    Value const value = serializer.parseValue(text, type);
    std::size_t const before = kivra::bench::allocations();
    for (auto _ : state) {
        ustring written = serializer.serializeValue(value);
        benchmark::DoNotOptimize(written);
    }
    countAllocations(state, before);
}

void BM_ParseInteger(benchmark::State &state) { parse(state, StandardTypes::integerMeta, u"-2147483648"); }
void BM_WriteInteger(benchmark::State &state) { write(state, StandardTypes::integerMeta, u"-2147483648"); }
void BM_ParseInteger64(benchmark::State &state) { parse(state, StandardTypes::integer64Meta, u"-9223372036854775808"); }
void BM_WriteInteger64(benchmark::State &state) { write(state, StandardTypes::integer64Meta, u"-9223372036854775808"); }
// Short texts stay in the string's own buffer; a 17-digit double does not.
void BM_ParseDoubleShort(benchmark::State &state) { parse(state, StandardTypes::realMeta, u"1.5"); }
void BM_WriteDoubleShort(benchmark::State &state) { write(state, StandardTypes::realMeta, u"1.5"); }
void BM_ParseDouble17(benchmark::State &state) { parse(state, StandardTypes::realMeta, u"0.30000000000000004"); }
void BM_WriteDouble17(benchmark::State &state) { write(state, StandardTypes::realMeta, u"0.30000000000000004"); }
void BM_ParseUuid(benchmark::State &state) {
    parse(state, StandardTypes::uuidMeta, u"27118326-006d-3829-a67a-400ad23d5d98");
}
void BM_WriteUuid(benchmark::State &state) {
    write(state, StandardTypes::uuidMeta, u"27118326-006d-3829-a67a-400ad23d5d98");
}
// What a caller pays to find the serializer of a standard type, without caching it.
void BM_LookUpSerializer(benchmark::State &state) {
    Type const type = StandardTypes::realMeta.get();
    auto &registry = PropertySerializerRegistry::getInstance();
    std::size_t const before = kivra::bench::allocations();
    for (auto _ : state)
        benchmark::DoNotOptimize(registry.getPropertySerializer(type, ""));
    countAllocations(state, before);
}

// A field of a `VersionInfo` value found by its property handle, and a new value with it changed.
void BM_GetDatatypeField(benchmark::State &state) {
    auto const &e = kivra::meta::MetaPackageMeta::getInstance().elements();
    auto const &serializer = *PropertySerializerRegistry::getInstance().getDatatypeSerializer(e.d_VersionInfo);
    Value const info = kivra::meta::VersionInfo(u"core", u"2.1").toValue();
    std::size_t const before = kivra::bench::allocations();
    for (auto _ : state)
        benchmark::DoNotOptimize(serializer.getPropertyValue(info, e.p_VersionInfo_minVersion));
    countAllocations(state, before);
}
void BM_SetDatatypeField(benchmark::State &state) {
    auto const &e = kivra::meta::MetaPackageMeta::getInstance().elements();
    auto const &serializer = *PropertySerializerRegistry::getInstance().getDatatypeSerializer(e.d_VersionInfo);
    Value const info = kivra::meta::VersionInfo(u"core", u"2.1").toValue();
    Value const version(ustring(u"2.2"));
    std::size_t const before = kivra::bench::allocations();
    for (auto _ : state)
        benchmark::DoNotOptimize(serializer.setPropertyValue(info, e.p_VersionInfo_minVersion, version));
    countAllocations(state, before);
}

BENCHMARK(BM_ParseInteger);
BENCHMARK(BM_WriteInteger);
BENCHMARK(BM_ParseInteger64);
BENCHMARK(BM_WriteInteger64);
BENCHMARK(BM_ParseDoubleShort);
BENCHMARK(BM_WriteDoubleShort);
BENCHMARK(BM_ParseDouble17);
BENCHMARK(BM_WriteDouble17);
BENCHMARK(BM_ParseUuid);
BENCHMARK(BM_WriteUuid);
BENCHMARK(BM_LookUpSerializer);
BENCHMARK(BM_GetDatatypeField);
BENCHMARK(BM_SetDatatypeField);

} // namespace
