#pragma once
/// \file
/// Forward declarations of the query classes, for headers that only name them, such as
/// the handles of generated classes with their property accessors.

namespace kivra::query {

class AbstractQuery;
class ReflectiveQuery;
class RetargetableQuery;
class ReflectiveDisjunction;

class InstanceAttachment;
template <class T> class MetaclassAttachment;

template <class Attachment> class PropertyConstrainable;
template <class V, class Attachment, int optional> class AbstractConstrainable;
template <class V, class Attachment, int optional = 0, class = void> class ConstrainableWithAttachment;
template <class V, class Attachment> class ConstrainableRelationWithAttachment;
template <class V, class Attachment> class ConstrainableCollectionWithAttachment;
template <class Attachment> class IdentityConstrainable;

template <class Attachment> class ValueRelationConstraint;
template <class AttachmentA, class AttachmentB> class PropertyRelationConstraint;
template <class HolderAttachment, class ValueAttachment> class AssociationConstraint;
template <class Attachment, class T> class SpecificValueConstraint;
template <class Attachment> class IsTopLevelConstraint;
class DisjunctionConstraint;

} // namespace kivra::query
