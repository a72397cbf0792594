// Fuzz target of the message decoder. Datagrams go through
// MessageProcessor::InterpretDatagram, the same walk the process thread runs,
// into stub endpoints of a Participant that never gets its network: nothing
// here opens a socket.
//
// Built with MORVODDS_LIBFUZZER it is a libFuzzer target. Otherwise it is a
// seeded mutation driver over valid datagrams made by the encoder:
//   decoder_fuzz [ITERATIONS [SEED [SECONDS]]]   (defaults 20000, 1, no limit)
//   decoder_fuzz --write-seeds DIR               (seed corpus for libFuzzer)
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>
#include <random>
#include <string>
#include <vector>

#include "QosPolicy.h"
#include "discovery/Discovery.h"
#include "messages/MessageProcessor.h"
#include "messages/MessageTransmitter.h"
#include "rtps/Participant.h"
#include "rtps/StatefulReader.h"
#include "rtps/StatefulWriter.h"

namespace {

typedef std::vector<octet> Octets;

const GuidPrefix kLocal = {{0x0A, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00}};
const GuidPrefix kRemote = {{0x0A, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00, 0x00, 0x05, 0x00, 0x00, 0x00}};
const EntityId_t kRemoteWriter = {{0x00, 0x04, 0x01}, 0x03};
const EntityId_t kUserReader = {{0x00, 0x09, 0x01}, 0x04};
const EntityId_t kLocalWriter = {{0x00, 0x04, 0x07}, 0x03};
const EntityId_t kBestEffortWriter = {{0x00, 0x04, 0x08}, 0x03};
const EntityId_t kReaders[] = {
    ENTITYID_SPDP_BUILTIN_PARTICIPANT_READER, ENTITYID_SEDP_BUILTIN_PUBLICATIONS_READER,
    ENTITYID_SEDP_BUILTIN_SUBSCRIPTIONS_READER, ENTITYID_P2P_BUILTIN_PARTICIPANT_MESSAGE_READER, kUserReader};
const EntityId_t kBuiltinWriters[] = {
    ENTITYID_SPDP_BUILTIN_PARTICIPANT_WRITER, ENTITYID_SEDP_BUILTIN_PUBLICATIONS_WRITER,
    ENTITYID_SEDP_BUILTIN_SUBSCRIPTIONS_WRITER, ENTITYID_P2P_BUILTIN_PARTICIPANT_MESSAGE_WRITER};

volatile uint32_t g_uiSink;  // keeps the reads of delivered bytes

// What the inputs reached, for the driver's summary.
struct Reached {
    unsigned long run, passedOver, cut, data, frags, heartbeats, acks, nackFrags;
} g_Reached;

[[noreturn]] void Fail(const char* szWhat) {
    fprintf(stderr, "decoder_fuzz: %s\n", szWhat);
    abort();
}

// Reads every octet handed over, so that a sanitizer sees any that lie outside the buffer.
void Touch(const std::list<Parameter>& inlineQos, const octet* pData, uint32_t uiLength) {
    uint32_t uiSum = 0;
    for (const Parameter& param : inlineQos) {
        if (param.length < 0 || param.length > PARAMETER_VALUE_MAX) Fail("parameter length past its record");
        for (int i = 0; i < param.length; ++i) uiSum += param.value[i];
    }
    if (pData != nullptr)
        for (uint32_t i = 0; i < uiLength; ++i) uiSum += pData[i];
    g_uiSink = g_uiSink + uiSum;
}

class StubReader : public StatefulReader {
public:
    explicit StubReader(const EntityId_t& id)
        : StatefulReader(GUID_t(kLocal, id), DataReaderQos(), nullptr) {}
    int DataMessageReceive(const MessageReceiver&, const DataSubMessage&, const std::list<Parameter>& qos,
                           const octet* pData, uint32_t uiLength) override {
        Touch(qos, pData, uiLength);
        ++g_Reached.data;
        return 0;
    }
    int DataFragMessageReceive(const MessageReceiver&, const DataFragSubMessage&, const dataFrag&,
                               const std::list<Parameter>& qos, const octet* pData,
                               uint32_t uiLength) override {
        if (pData == nullptr) Fail("fragment without data");
        Touch(qos, pData, uiLength);
        ++g_Reached.frags;
        return 0;
    }
    int HeartBeatMessageReceive(const MessageReceiver&, const heartBeatSubMessage&) override {
        ++g_Reached.heartbeats;
        return 0;
    }
    int GapMessageReceive(const MessageReceiver&, const stGapSubMessage&) override {
        Fail("GAP reached a reader");
    }
};

class StubWriter : public StatefulWriter {
public:
    explicit StubWriter(const EntityId_t& id) : StatefulWriter(GUID_t(kLocal, id), Qos(), nullptr) {}
    int AckNackMessageReceive(const MessageReceiver&, const ackMessage&) override {
        ++g_Reached.acks;
        return 0;
    }
    int NackFragMessageReceive(const MessageReceiver&, const NackFragMessage&) override {
        ++g_Reached.nackFrags;
        return 0;
    }

private:
    static DataWriterQos Qos() {
        DataWriterQos qos;
        qos.reliability.kind = RELIABLE_RELIABILITY_QOS;
        return qos;
    }
};

class NullTransmitter : public MessageTransmitter {
public:
    explicit NullTransmitter(ReceiveBuffer* pBuffer) : MessageTransmitter(pBuffer) {}
    int SendAddrAdd(Locator_t) override { return 0; }
    int MessageSend(const std::list<Locator_t>&, const std::list<Locator_t>&, const octet*,
                    uint32_t) override {
        return 0;
    }
    int MessageSend(Locator_t, Locator_t, const octet*, uint32_t) override { return 0; }
    int MessageSend(const Locator_t*, const Locator_t*, const octet*, uint32_t) override { return 0; }
    int ReceiveMessage() override { return 0; }
    int ReceiveAddrAdd(Locator_t) override { return 0; }
    int ReceiveAddrRemove(Locator_t) override { return 0; }
};
MessageTransmitter* MakeNullTransmitter(ReceiveBuffer* pBuffer, int) {
    return new NullTransmitter(pBuffer);
}

// A participant with a reader for each built-in writer, one matched user reader,
// a reliable and a best-effort writer. Built once; endpoints swapped in through
// the registry's borrow belong to the participant.
class Harness {
public:
    Harness()
        : m_Discovery(nullptr),
          m_Participant(GUID_t(kLocal, ENTITYID_PARTICIPANT), nullptr, 91, nullptr, &MakeNullTransmitter) {
        m_Participant.setDiscovery(&m_Discovery);
        for (const EntityId_t& id : kReaders)
            Substitute(m_Participant.createReader(DataReaderQos(), id), new StubReader(id));
        DataWriterQos reliable;
        reliable.reliability.kind = RELIABLE_RELIABILITY_QOS;
        Substitute(m_Participant.createWriter(reliable, kLocalWriter), new StubWriter(kLocalWriter));
        Substitute(m_Participant.createWriter(reliable, ENTITYID_SEDP_BUILTIN_PUBLICATIONS_WRITER),
                   new StubWriter(ENTITYID_SEDP_BUILTIN_PUBLICATIONS_WRITER));
        DataWriterQos bestEffort;
        bestEffort.reliability.kind = BEST_EFFORT_RELIABILITY_QOS;
        m_Endpoints.push_back(m_Participant.createWriter(bestEffort, kBestEffortWriter));
        m_Discovery.addWriterReaderPair(GUID_t(kRemote, kRemoteWriter), kUserReader);
        m_Discovery.addWriterReaderPair(GUID_t(kRemote, ENTITYID_SPDP_BUILTIN_PARTICIPANT_WRITER),
                                        kUserReader);
    }

    void Run(const octet* pData, size_t uiSize) {
        // The decoder leaves an endpoint borrowed after a GAP, and after an ACKNACK or
        // NACK_FRAG for anything but a reliable writer; a later submessage for the same endpoint
        // then waits for ever, as it would on the process thread. Such inputs are
        // passed over, and every endpoint is given back after each input.
        if (WouldWaitForItself(pData, uiSize)) {
            ++g_Reached.passedOver;
            return;
        }
        ++g_Reached.run;
        if (m_Participant.getMessageProcessor()->InterpretDatagram(
                pData, uint32_t(std::min<size_t>(uiSize, UINT32_MAX))) == MessageProcessor::INTERPRET_CUT)
            ++g_Reached.cut;
        for (Endpoint* pEndpoint : m_Endpoints) m_Participant.returnEndpoint(pEndpoint);
    }

    bool PassesOver(const Octets& d) { return WouldWaitForItself(d.data(), d.size()); }

private:
    void Substitute(Endpoint* pReal, Endpoint* pStandIn) {
        if (pReal == nullptr || m_Participant.takeEndpoint(pReal->getEntityId()) != pReal)
            Fail("endpoint set-up");
        m_Participant.returnEndpoint(pStandIn);
        delete pReal;
        m_Endpoints.push_back(pStandIn);
    }

    // The endpoint a submessage borrows, by the decoder's routing rules.
    bool Target(octet kind, const octet* pSub, const GuidPrefix& source, EntityId_t& target) {
        EntityId_t writerId;
        std::memcpy(&writerId, pSub + ((kind == DATA || kind == DATA_FRAG) ? 12 : 8), 4);
        if (kind == ACKNACK || kind == NACK_FRAG) {
            target = writerId;
            return true;
        }
        if (kind != DATA && kind != DATA_FRAG && kind != HEARTBEAT && kind != GAP) return false;
        for (size_t i = 0; i < 4 && kind != DATA_FRAG; ++i) {
            const bool bInTable = kind == DATA || i == 1 || i == 2;
            if (bInTable && writerId == kBuiltinWriters[i]) {
                target = kReaders[i];
                return true;
            }
        }
        m_Discovery.getLocalReaderOfWriter(target, GUID_t(source, writerId));
        return !(target == ENTITYID_UNKNOWN);
    }

    // Mirrors the walk's framing over the same zero-padded 64 KiB image.
    bool WouldWaitForItself(const octet* pData, size_t uiSize) {
        const size_t uiBuffer = MessageProcessor::MESSAGE_BUFFER_SIZE;
        m_Image.assign(uiBuffer + 64, 0);  // the slack reads as the zeros the decoder assumes
        if (uiSize != 0) std::memcpy(m_Image.data(), pData, std::min(uiSize, uiBuffer));
        GuidPrefix source;
        std::memcpy(source.value, m_Image.data() + 8, 12);
        std::vector<EntityId_t> held;
        size_t uiPos = 20;
        for (;;) {
            const octet* pSub = m_Image.data() + uiPos;
            uint16_t usLength;
            std::memcpy(&usLength, pSub + 2, 2);
            if ((pSub[1] & 1) == 0) usLength = uint16_t((usLength >> 8) | (usLength << 8));
            if (usLength > 0 && size_t(usLength) + 4 > uiBuffer - uiPos) return false;
            EntityId_t target;
            if (Target(pSub[0], pSub, source, target)) {
                for (const EntityId_t& id : held)
                    if (id == target) return true;
                // ACKNACK and NACK_FRAG keep any endpoint that is not a reliable writer.
                const bool bToWriter = pSub[0] == ACKNACK || pSub[0] == NACK_FRAG;
                if (pSub[0] == GAP || (bToWriter && !(target == kLocalWriter) &&
                                       !(target == ENTITYID_SEDP_BUILTIN_PUBLICATIONS_WRITER)))
                    held.push_back(target);
            }
            if (usLength == 0) return false;
            uiPos += size_t(usLength) + 4;
        }
    }

    Discovery m_Discovery;
    Participant m_Participant;
    std::vector<Endpoint*> m_Endpoints;
    Octets m_Image;
};

Harness& TheHarness() {
    static Harness* pHarness = new Harness();  // lives to the end of the process
    return *pHarness;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uiSize) {
    TheHarness().Run(pData, uiSize);
    return 0;
}

#ifndef MORVODDS_LIBFUZZER
// ------------------------------------------------------------------ seeded driver
namespace {

// Valid datagrams from the encoder, aimed at the harness's endpoints, singly and
// several submessages to a datagram.
std::vector<Octets> MakeSeeds() {
    MessageProcessor encoder(nullptr, nullptr, kRemote, 0);
    std::vector<Octets> seeds;
    uint32_t uiLen = 0;
    auto start = [&] { encoder.EncapsulateMessageHeader(uiLen); };
    auto finish = [&] {
        const octet* p = encoder.getEncapsulateMessage();
        seeds.emplace_back(p, p + uiLen);
    };
    std::list<Parameter> none;
    std::list<Parameter> withdraw;
    const octet aGuid[16] = {0x0A, 0, 0, 2, 0, 0, 0, 0, 5, 0, 0, 0, 0, 4, 1, 3};
    const octet aStatus[4] = {0, 0, 0, 3};
    withdraw.push_back(Parameter(112, 16, aGuid));
    withdraw.push_back(Parameter(113, 4, aStatus));
    withdraw.push_back(Parameter(PID_SENTINEL, 0, nullptr));
    Octets payload(70000);
    for (size_t i = 0; i < payload.size(); ++i) payload[i] = octet(i * 7);
    SequenceNumberSet missing;
    missing.bitmapBase = SequenceNumber_t(0, 3);
    missing.numBits = 40;
    missing.bitmap[0] = 0xF0000000u;
    missing.bitmap[1] = 0x80000000u;
    FragmentNumberSet fragments;
    fragments.bitmapBase = 2;
    fragments.numBits = 3;

    start();
    encoder.EncapsulateINFOTSMessage(uiLen, Time_t(5, 6));
    encoder.EncapsulateDATAMessage(uiLen, payload.data(), 300, SequenceNumber_t(0, 1), none, kRemoteWriter);
    finish();
    for (const EntityId_t& writer : kBuiltinWriters) {
        start();
        encoder.EncapsulateINFOTSMessage(uiLen, Time_t(7, 8));
        encoder.EncapsulateDATAMessage(uiLen, payload.data(), 64, SequenceNumber_t(0, 2), withdraw, writer);
        finish();
    }
    start();
    encoder.EncapsulateINFOTSMessage(uiLen, Time_t(1, 1));
    encoder.EncapsulateDATAFragMessage(uiLen, payload.data(), 900, 1, 70000, SequenceNumber_t(0, 4), withdraw,
                                       kRemoteWriter);
    finish();
    start();
    encoder.EncapsulateINFODSTMessage(uiLen, kLocal);
    encoder.EncapsulateHeartBeatMessage(uiLen, ENTITYID_SEDP_BUILTIN_PUBLICATIONS_WRITER,
                                        SequenceNumber_t(0, 1), SequenceNumber_t(0, 9), 15);
    encoder.EncapsulateHeartBeatMessage(uiLen, kRemoteWriter, SequenceNumber_t(0, 2), SequenceNumber_t(0, 5),
                                        16);
    finish();
    start();
    encoder.EncapsulateINFODSTMessage(uiLen, kLocal);
    encoder.EncapsulateAckNackMessage(uiLen, kLocalWriter, kUserReader, missing);
    encoder.EncapsulateNackFragMessage(uiLen, kLocalWriter, kUserReader, SequenceNumber_t(0, 4), fragments);
    encoder.EncapsulateAckNackMessage(uiLen, kBestEffortWriter, kUserReader, missing);
    finish();
    start();
    encoder.EncapsulateINFODSTMessage(uiLen, kLocal);
    encoder.EncapsulateINFOTSMessage(uiLen, Time_t(3, 4));
    encoder.EncapsulateGapMessage(uiLen, kRemoteWriter, kUserReader, SequenceNumber_t(0, 1), missing);
    encoder.EncapsulateDATAMessage(uiLen, payload.data(), 10, SequenceNumber_t(0, 2), none,
                                   ENTITYID_SPDP_BUILTIN_PARTICIPANT_WRITER);
    finish();
    start();
    encoder.EncapsulateINFOTSMessage(uiLen, Time_t(9, 9));
    encoder.EncapsulateDATAMessage(uiLen, payload.data(), FRAGMENT_SIZE, SequenceNumber_t(0, 5), none,
                                   kRemoteWriter);
    finish();
    return seeds;
}

// Offsets of the submessage headers, walked as the decoder walks a host-order datagram.
std::vector<size_t> SubMessageStarts(const Octets& d) {
    std::vector<size_t> starts;
    size_t uiPos = 20;
    while (uiPos + 4 <= d.size() && starts.size() < 64) {
        starts.push_back(uiPos);
        const size_t uiLength = size_t(d[uiPos + 2]) | size_t(d[uiPos + 3]) << 8;
        if (uiLength == 0) break;
        uiPos += uiLength + 4;
    }
    return starts;
}

Octets Mutate(const Octets& base, const std::vector<Octets>& corpus, std::mt19937& rng) {
    static const octet aBytes[] = {0,         1,   2,       4,        0x7F,      0x80, 0xFF,     ACKNACK,
                                   HEARTBEAT, GAP, INFO_TS, INFO_DST, NACK_FRAG, DATA, DATA_FRAG};
    static const uint16_t aWords[] = {0,  1,  3,  4,  8,  12, 16, 19,  20,  23,     24,     27,     28,
                                      31, 32, 35, 36, 56, 60, 64, 128, 129, 0x7FFF, 0x8000, 0xFC00, 0xFFFF};
    Octets d = base;
    auto pick = [&](size_t n) { return n == 0 ? 0 : size_t(rng() % n); };
    const int iSteps = rng() % 2 == 0 ? 1 : 1 + int(rng() % 6);
    for (int i = 0; i < iSteps; ++i) {
        const std::vector<size_t> starts = SubMessageStarts(d);
        switch (rng() % 10) {
            case 0:
                if (!d.empty()) d[pick(d.size())] ^= octet(1u << (rng() % 8));
                break;
            case 1:
                if (!d.empty()) d[pick(d.size())] = aBytes[pick(sizeof(aBytes))];
                break;
            case 2:
                if (d.size() >= 2) {
                    const size_t uiAt = pick(d.size() - 1);
                    const uint16_t usWord = aWords[pick(sizeof(aWords) / sizeof(aWords[0]))];
                    d[uiAt] = octet(usWord);
                    d[uiAt + 1] = octet(usWord >> 8);
                }
                break;
            case 3: {  // a submessage's kind, flags or length
                if (starts.empty()) break;
                const size_t uiAt = starts[pick(starts.size())];
                const int iField = int(rng() % 3);
                if (iField == 0) d[uiAt] = aBytes[pick(sizeof(aBytes))];
                if (iField == 1) d[uiAt + 1] = octet(rng());
                if (iField == 2) {
                    const uint16_t usWord = aWords[pick(sizeof(aWords) / sizeof(aWords[0]))];
                    d[uiAt + 2] = octet(usWord);
                    d[uiAt + 3] = octet(usWord >> 8);
                }
                break;
            }
            case 4:
                if (!d.empty()) d.resize(pick(d.size()));
                break;
            case 5: {
                if (d.empty()) break;
                const size_t uiAt = pick(d.size());
                d.erase(d.begin() + long(uiAt), d.begin() + long(std::min(d.size(), uiAt + 1 + pick(64))));
                break;
            }
            case 6: {
                const size_t uiAt = pick(d.size() + 1);
                Octets fill(1 + pick(64));
                for (octet& o : fill) o = octet(rng());
                d.insert(d.begin() + long(uiAt), fill.begin(), fill.end());
                break;
            }
            case 7: {  // splice in submessages of another datagram
                const Octets& other = corpus[pick(corpus.size())];
                if (other.size() <= 20) break;
                const size_t uiFrom = 20 + pick(other.size() - 20);
                const size_t uiTo = std::min(other.size(), uiFrom + 1 + pick(512));
                const size_t uiAt = starts.empty() ? d.size() : starts[pick(starts.size())];
                d.insert(d.begin() + long(std::min(uiAt, d.size())), other.begin() + long(uiFrom),
                         other.begin() + long(uiTo));
                break;
            }
            case 8:  // grow to the buffer's edge and beyond
                d.resize(MessageProcessor::MESSAGE_BUFFER_SIZE - 64 + pick(128), octet(rng()));
                break;
            default:  // the E flag of every submessage
                for (size_t uiAt : starts) d[uiAt + 1] ^= 1;
                break;
        }
        if (d.size() > 70000) d.resize(70000);
    }
    return d;
}

int WriteSeeds(const char* szDir) {
    const std::vector<Octets> seeds = MakeSeeds();
    for (size_t i = 0; i < seeds.size(); ++i) {
        const std::string strPath = std::string(szDir) + "/seed_" + std::to_string(i);
        FILE* pFile = fopen(strPath.c_str(), "wb");
        if (pFile == nullptr || fwrite(seeds[i].data(), 1, seeds[i].size(), pFile) != seeds[i].size()) {
            fprintf(stderr, "decoder_fuzz: cannot write %s\n", strPath.c_str());
            if (pFile != nullptr) fclose(pFile);
            return 1;
        }
        fclose(pFile);
    }
    printf("decoder_fuzz: %zu seeds written to %s\n", seeds.size(), szDir);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "--write-seeds") == 0) return WriteSeeds(argv[2]);
    const unsigned long ulIterations = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 20000;
    const unsigned long ulSeed = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 1;
    const unsigned long ulSeconds = argc > 3 ? std::strtoul(argv[3], nullptr, 10) : 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(ulSeconds);

    std::vector<Octets> corpus = MakeSeeds();
    for (const Octets& seed : corpus) {
        if (TheHarness().PassesOver(seed)) Fail("a seed is passed over");
        LLVMFuzzerTestOneInput(seed.data(), seed.size());
    }
    // Without the pass-over rule these would hang the run: a GAP, or a NACK_FRAG
    // naming a reader, followed by a HEARTBEAT for the same reader.
    for (int iCase = 0; iCase < 2; ++iCase) {
        MessageProcessor encoder(nullptr, nullptr, kRemote, 0);
        uint32_t uiLen = 0;
        encoder.EncapsulateMessageHeader(uiLen);
        FragmentNumberSet fragments;
        if (iCase == 0)
            encoder.EncapsulateGapMessage(uiLen, kRemoteWriter, kUserReader, SequenceNumber_t(0, 1),
                                          SequenceNumberSet());
        else
            encoder.EncapsulateNackFragMessage(uiLen, kUserReader, kUserReader, SequenceNumber_t(0, 1),
                                               fragments);
        encoder.EncapsulateHeartBeatMessage(uiLen, kRemoteWriter, SequenceNumber_t(0, 1),
                                            SequenceNumber_t(0, 2), 1);
        const octet* p = encoder.getEncapsulateMessage();
        if (!TheHarness().PassesOver(Octets(p, p + uiLen))) Fail("the pass-over rule misses a self-wait");
    }
    const size_t uiSeeds = corpus.size();
    std::mt19937 rng{uint32_t(ulSeed)};
    unsigned long ulDone = 0;
    for (; ulDone < ulIterations; ++ulDone) {
        if (ulSeconds != 0 && (ulDone & 0xFF) == 0 && std::chrono::steady_clock::now() > deadline) break;
        // Half from the seeds, half from kept mutants, so that valid shapes stay common.
        const size_t uiBase = rng() % 2 == 0 ? rng() % uiSeeds : rng() % corpus.size();
        const Octets input = Mutate(corpus[uiBase], corpus, rng);
        LLVMFuzzerTestOneInput(input.data(), input.size());
        // Keep some mutants so that mutations stack; the seeds always stay.
        if (rng() % 16 == 0) {
            if (corpus.size() < uiSeeds + 256)
                corpus.push_back(input);
            else
                corpus[uiSeeds + rng() % 256] = input;
        }
    }
    printf(
        "decoder_fuzz: %lu datagrams, seed %lu: %lu run (%lu cut), %lu passed over; delivered %lu DATA, %lu "
        "DATA_FRAG, "
        "%lu HEARTBEAT, %lu ACKNACK, %lu NACK_FRAG\n",
        ulDone, ulSeed, g_Reached.run, g_Reached.cut, g_Reached.passedOver, g_Reached.data, g_Reached.frags,
        g_Reached.heartbeats, g_Reached.acks, g_Reached.nackFrags);
    return 0;
}
#endif
