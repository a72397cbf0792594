// Roots of the DCPS entity hierarchy. No state of their own.
#ifndef MORVODDS_ENTITY_H
#define MORVODDS_ENTITY_H

class Entity {
public:
    virtual ~Entity() {}
};

class DomainEntity : public Entity {};

#endif
