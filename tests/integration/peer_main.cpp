// The subscribing process of the two-process test. It talks to the test over
// the pipes that PeerProcess hands it: it sends its connection line, connects
// its reader to the writer the test names, reports every sample it takes, and
// ends on QUIT. Usage: integration_peer --domain D --topic NAME
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "DataReader.h"
#include "DomainParticipant.h"
#include "DomainParticipantFactory.h"
#include "LineChannel.h"
#include "ManualMatch.h"
#include "PeerProcess.h"
#include "Subscriber.h"
#include "TakeEach.h"
#include "Topic.h"
#include "TwoProcessSamples.h"

namespace {

const int kSetUpTimeoutMs = 10000;
// The test ends the peer; this only bounds a peer whose test has died.
const int kQuitTimeoutMs = 120000;
// take hands over every other sample per call; a few calls empty any cache.
const int kTakeCallsMax = 64;

// Takes on the process thread, as samples arrive, and reports each at once.
class ReportingListener : public DataReaderListener {
public:
    explicit ReportingListener(LineChannel& channel) : m_Channel(channel) {}

    void on_data_available(DataReader* pReader) override {
        TakeEach(
            pReader,
            [this](UserData& value) {
                two_process::Report report;
                report.length = value.length;
                report.firstBad = two_process::CheckSample(value.data, value.length, &report.index);
                m_Channel.Send(two_process::kSample + two_process::FormatReport(report));
                std::free(value.data);
            },
            kTakeCallsMax);
    }

private:
    LineChannel& m_Channel;
};

int Fail(LineChannel& channel, const std::string& strWhy) {
    channel.Send(two_process::kFail + strWhy);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    LineChannel channel(PeerProcess::CHILD_READ_FD, PeerProcess::CHILD_WRITE_FD);
    int iDomain = -1;
    std::string strTopic;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--domain") == 0)
            iDomain = std::atoi(argv[i + 1]);
        else if (std::strcmp(argv[i], "--topic") == 0)
            strTopic = argv[i + 1];
    }
    if (iDomain < 0 || strTopic.empty()) return Fail(channel, "usage: --domain D --topic NAME");

    DomainParticipantFactory* pFactory = DomainParticipantFactory::get_instance();
    DomainParticipant* pParticipant =
        pFactory->create_participant(iDomain, PARTICIPANT_QOS_DEFAULT, nullptr, 0);
    if (pParticipant == nullptr) return Fail(channel, "create_participant");
    pParticipant->register_type("TwoProcessBytes");
    Topic* pTopic = pParticipant->create_topic(strTopic, "TwoProcessBytes", TOPIC_QOS_DEFAULT, nullptr, 0);
    Subscriber* pSubscriber = pParticipant->create_subscriber(SUBSCRIBER_QOS_DEFAULT, nullptr, 0);
    ReportingListener listener(channel);
    DataReaderQos qos;
    qos.reliability.kind = BEST_EFFORT_RELIABILITY_QOS;
    DataReader* pReader =
        pSubscriber != nullptr ? pSubscriber->create_datareader(pTopic, qos, &listener, 0) : nullptr;
    if (pReader == nullptr) return Fail(channel, "create_datareader");

    ManualMatchPeer self;
    if (!ManualMatch::Describe(pParticipant, nullptr, pReader, &self)) return Fail(channel, "describe");
    channel.Send(two_process::kLine + ManualMatch::Format(self));

    std::string strLine;
    ManualMatchPeer remote;
    if (!channel.ReceiveTagged(two_process::kLine, &strLine, kSetUpTimeoutMs) ||
        !ManualMatch::Parse(strLine, &remote))
        return Fail(channel, "no connection line from the test");
    if (ManualMatch::ConnectReader(pReader, remote) != 0) return Fail(channel, "ConnectReader");
    channel.Send(two_process::kReady);

    std::string strRest;
    const bool bQuit = channel.ReceiveTagged(two_process::kQuit, &strRest, kQuitTimeoutMs);

    // Stops the threads before the reader goes, so the listener is quiet from here on.
    pFactory->delete_participant(pParticipant);
    return bQuit ? 0 : 3;
}
