// Creates participants in two domains, registers types, looks participants up,
// serialises a small sample with CDR and reads it back, then deletes everything.
// Opens no sockets while the protocol stack is not built into participants.
#include <cstdio>
#include <list>
#include <string>

#include "CDR.h"
#include "DomainParticipant.h"
#include "DomainParticipantFactory.h"

namespace {

struct Position {
    int id;
    double x;
    double y;
    std::string label;
};

// Encapsulation header (little-endian CDR) followed by the members in order.
bool Serialise(CDR& out, const Position& p) {
    const unsigned char header[4] = {0x00, 0x01, 0x00, 0x00};
    for (unsigned char octet : header)
        if (!out.PutOctet(octet)) return false;
    return out.PutLong(p.id) && out.PutDouble(p.x) && out.PutDouble(p.y) && out.PutString(p.label.c_str());
}

bool Deserialise(CDR& in, Position& p) {
    char* label = nullptr;
    if (!in.SkipBytes(4) || !in.GetLong(p.id) || !in.GetDouble(p.x) || !in.GetDouble(p.y) ||
        !in.GetString(label))
        return false;
    p.label = label;
    delete[] label;
    return true;
}

}  // namespace

int main() {
    DomainParticipantFactory* factory = DomainParticipantFactory::get_instance();

    DomainParticipant* first = factory->create_participant(3, PARTICIPANT_QOS_DEFAULT, nullptr, 0);
    DomainParticipant* second = factory->create_participant(3, PARTICIPANT_QOS_DEFAULT, nullptr, 0);
    DomainParticipant* other = factory->create_participant(7, PARTICIPANT_QOS_DEFAULT, nullptr, 0);
    if (first == nullptr || second == nullptr || other == nullptr) {
        std::printf("could not create the participants\n");
        return 1;
    }
    std::printf("created two participants in domain %d and one in domain %d\n", first->get_domain_id(),
                other->get_domain_id());

    // A plain name is enough for plain topics; content filters need the description too.
    std::list<std::string> description = {"struct Position {", "long id;",      "double x;",
                                          "double y;",         "string label;", "};"};
    first->register_type("Position", description);
    other->register_type("Position");
    std::printf("registered type Position in both domains\n");

    std::printf("lookup domain 3 gives the first participant: %s\n",
                factory->lookup_participant(3) == first ? "yes" : "no");
    std::printf("lookup domain 7 gives its participant: %s\n",
                factory->lookup_participant(7) == other ? "yes" : "no");

    Position sent = {42, 1.5, -2.25, "buoy"};
    unsigned char storage[128] = {};
    CDR writer(storage, sizeof(storage), 1, 0);
    if (!Serialise(writer, sent)) {
        std::printf("serialisation failed\n");
        return 1;
    }
    const unsigned int length = static_cast<unsigned int>(writer.GetContentLen());
    std::printf("serialised Position into %u octets\n", length);

    Position received = {};
    CDR reader(storage, length, 1, 0);
    if (!Deserialise(reader, received)) {
        std::printf("deserialisation failed\n");
        return 1;
    }
    std::printf("read back: id=%d x=%.2f y=%.2f label=%s\n", received.id, received.x, received.y,
                received.label.c_str());

    factory->delete_participant(first);
    std::printf("after deleting the first, lookup domain 3 gives the second: %s\n",
                factory->lookup_participant(3) == second ? "yes" : "no");
    factory->delete_participant(second);
    factory->delete_participant(other);
    std::printf("deleted every participant\n");
    return 0;
}
