#pragma once
/// \file
/// Forward declarations of the metamodel's handles.

namespace kivra::meta {

class Type;
class Class;
class Property;
class Package;
class Extension;
class ExtensionPrototype;
class DynamicExtensions;
class MetaRegistry;
class DataModelUsageProvider;
class DefaultModelUsageProvider;

} // namespace kivra::meta
