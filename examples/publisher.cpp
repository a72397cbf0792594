// Publishes ten Greeting samples, serialised with CDR, to one subscriber process.
// Until discovery exists the two connect by hand: each writes a connection line
// into the directory given on the command line and reads the other's.
//   publisher DIR    (run subscriber DIR alongside, in the same network namespace)
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "DataWriter.h"
#include "DomainParticipant.h"
#include "DomainParticipantFactory.h"
#include "ExampleSupport.h"
#include "ManualMatch.h"
#include "Publisher.h"
#include "Topic.h"

namespace {

int Run(const std::string& strDir, DomainParticipant* pParticipant) {
    pParticipant->register_type(example::kType);
    Topic* pTopic =
        pParticipant->create_topic(example::kTopic, example::kType, TOPIC_QOS_DEFAULT, nullptr, 0);
    Publisher* pPublisher = pParticipant->create_publisher(PUBLISHER_QOS_DEFAULT, nullptr, 0);
    DataWriterQos qos;
    qos.reliability.kind = BEST_EFFORT_RELIABILITY_QOS;
    DataWriter* pWriter =
        pPublisher != nullptr ? pPublisher->create_datawriter(pTopic, qos, nullptr, 0) : nullptr;
    if (pWriter == nullptr) {
        std::printf("[publisher] could not create the writer\n");
        return 1;
    }

    ManualMatchPeer self, subscriber;
    std::string strLine;
    ManualMatch::Describe(pParticipant, pWriter, nullptr, &self);
    if (!example::PutFile(strDir, "publisher.line", ManualMatch::Format(self))) {
        std::printf("[publisher] cannot write to %s\n", strDir.c_str());
        return 1;
    }
    if (!example::AwaitFile(strDir, "subscriber.line", &strLine) ||
        !ManualMatch::Parse(strLine, &subscriber) || ManualMatch::ConnectWriter(pWriter, subscriber) != 0) {
        std::printf("[publisher] no subscriber to connect to\n");
        return 1;
    }
    // Samples sent before the subscriber has connected its reader would be dropped there.
    if (!example::AwaitFile(strDir, "subscriber.ready", &strLine)) {
        std::printf("[publisher] the subscriber did not get ready\n");
        return 1;
    }
    std::printf("[publisher] connected to the subscriber on port %u\n", subscriber.userUnicastPort);

    for (int i = 1; i <= example::kSampleCount; ++i) {
        example::Greeting greeting;
        greeting.counter = i;
        greeting.text = "hello number " + std::to_string(i);
        greeting.value = i * 1.5;
        std::string strBytes;
        if (!example::Serialise(greeting, &strBytes)) return 1;
        const ReturnCode_t result = pWriter->write(strBytes.data(), unsigned(strBytes.size()), HANDLE_NIL);
        std::printf("[publisher] sent counter=%d text=\"%s\" value=%.2f (%zu octets, result %d)\n",
                    greeting.counter, greeting.text.c_str(), greeting.value, strBytes.size(), int(result));
        std::fflush(stdout);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::printf("usage: publisher DIR\n");
        return 2;
    }
    DomainParticipantFactory* pFactory = DomainParticipantFactory::get_instance();
    DomainParticipant* pParticipant =
        pFactory->create_participant(example::kDomain, PARTICIPANT_QOS_DEFAULT, nullptr, 0);
    if (pParticipant == nullptr) {
        std::printf("[publisher] could not create the participant\n");
        return 1;
    }
    const int iResult = Run(argv[1], pParticipant);
    pFactory->delete_participant(pParticipant);
    return iResult;
}
