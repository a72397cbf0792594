// Exported base for application type classes. The library never calls it: it
// neither serialises samples nor takes keys from a type. No state, no lock.
#ifndef MORVODDS_TYPESUPPORT_H
#define MORVODDS_TYPESUPPORT_H

class TypeCode;

class TypeSupport {
public:
    virtual ~TypeSupport();
    // The base has no type description: null.
    virtual TypeCode* GetTypeCode();
};

#endif
