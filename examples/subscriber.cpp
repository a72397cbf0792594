// Receives the publisher example's Greeting samples, deserialises them with CDR
// and prints them; exits 0 once all ten have come, 1 if they stop coming.
// Connects by hand through connection lines in the directory given.
//   subscriber DIR   (run publisher DIR alongside, in the same network namespace)
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "DataReader.h"
#include "DomainParticipant.h"
#include "DomainParticipantFactory.h"
#include "ExampleSupport.h"
#include "ManualMatch.h"
#include "Subscriber.h"
#include "TakeEach.h"
#include "Topic.h"

namespace {

// Runs on the participant's receive-processing thread, once per sample.
class GreetingListener : public DataReaderListener {
public:
    std::atomic<int> m_Received{0};

    void on_data_available(DataReader* pReader) override {
        // take hands over every other sample per call, so call it until nothing comes.
        TakeEach(pReader, [this](UserData& value) {
            example::Greeting greeting;
            if (example::Deserialise(value.data, value.length, &greeting))
                std::printf("[subscriber] received counter=%d text=\"%s\" value=%.2f\n", greeting.counter,
                            greeting.text.c_str(), greeting.value);
            else
                std::printf("[subscriber] received %u octets that do not read as a Greeting\n", value.length);
            std::fflush(stdout);
            std::free(value.data);  // take hands the buffer over
            ++m_Received;
        });
    }
};

int Run(const std::string& strDir, DomainParticipant* pParticipant, GreetingListener& listener) {
    pParticipant->register_type(example::kType);
    Topic* pTopic =
        pParticipant->create_topic(example::kTopic, example::kType, TOPIC_QOS_DEFAULT, nullptr, 0);
    Subscriber* pSubscriber = pParticipant->create_subscriber(SUBSCRIBER_QOS_DEFAULT, nullptr, 0);
    DataReaderQos qos;
    qos.reliability.kind = BEST_EFFORT_RELIABILITY_QOS;
    DataReader* pReader =
        pSubscriber != nullptr ? pSubscriber->create_datareader(pTopic, qos, &listener, 0) : nullptr;
    if (pReader == nullptr) {
        std::printf("[subscriber] could not create the reader\n");
        return 1;
    }

    ManualMatchPeer self, publisher;
    std::string strLine;
    ManualMatch::Describe(pParticipant, nullptr, pReader, &self);
    if (!example::PutFile(strDir, "subscriber.line", ManualMatch::Format(self))) {
        std::printf("[subscriber] cannot write to %s\n", strDir.c_str());
        return 1;
    }
    if (!example::AwaitFile(strDir, "publisher.line", &strLine) || !ManualMatch::Parse(strLine, &publisher) ||
        ManualMatch::ConnectReader(pReader, publisher) != 0) {
        std::printf("[subscriber] no publisher to connect to\n");
        return 1;
    }
    example::PutFile(strDir, "subscriber.ready", "ready");
    std::printf("[subscriber] connected to the publisher's writer, waiting for %d samples\n",
                example::kSampleCount);
    std::fflush(stdout);

    // Bounded: the publisher needs about a second; give up after the wait limit.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(example::kWaitMs);
    while (listener.m_Received.load() < example::kSampleCount && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const int iReceived = listener.m_Received.load();
    std::printf("[subscriber] received %d of %d samples\n", iReceived, example::kSampleCount);
    return iReceived == example::kSampleCount ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::printf("usage: subscriber DIR\n");
        return 2;
    }
    GreetingListener listener;  // outlives the participant, whose thread calls it
    DomainParticipantFactory* pFactory = DomainParticipantFactory::get_instance();
    DomainParticipant* pParticipant =
        pFactory->create_participant(example::kDomain, PARTICIPANT_QOS_DEFAULT, nullptr, 0);
    if (pParticipant == nullptr) {
        std::printf("[subscriber] could not create the participant\n");
        return 1;
    }
    const int iResult = Run(argv[1], pParticipant, listener);
    pFactory->delete_participant(pParticipant);
    return iResult;
}
