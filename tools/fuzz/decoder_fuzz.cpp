// Fuzz target of the receive path. Datagrams go through
// MessageProcessor::InterpretDatagram, the walk the process thread runs, into a real
// Participant with real StatefulReaders (best effort and reliable), their WriterProxys,
// HistoryCaches and reassembly, and real writers. The participant never gets its network:
// nothing here opens a socket. State carries over from input to input, as it does on the
// wire; endpoints that an input leaves taken are given back after it.
//
// Built with MORVODDS_LIBFUZZER it is a libFuzzer target. Otherwise it is a
// seeded mutation driver over the corpus of valid datagrams in tests/data:
//   decoder_fuzz [ITERATIONS [SEED [SECONDS]]] [--corpus DIR]   (defaults 20000, 1, no limit)
//   decoder_fuzz --write-seeds DIR                              (writes the corpus)
#include <dirent.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <list>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "QosPolicy.h"
#include "discovery/Discovery.h"
#include "messages/MessageProcessor.h"
#include "messages/MessageTransmitter.h"
#include "rtps/CacheChange.h"
#include "rtps/HistoryCache.h"
#include "rtps/Participant.h"
#include "rtps/ReaderDataSink.h"
#include "rtps/StatefulReader.h"
#include "rtps/StatefulWriter.h"
#include "rtps/WriterProxy.h"

namespace {

typedef std::vector<octet> Octets;

const GuidPrefix kLocal = {{0x0A, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00}};
const GuidPrefix kRemote = {{0x0A, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00, 0x00, 0x05, 0x00, 0x00, 0x00}};
const EntityId_t kRemoteWriter = {{0x00, 0x04, 0x01}, 0x03};    // best effort, to kUserReader
const EntityId_t kReliableWriter = {{0x00, 0x04, 0x02}, 0x03};  // to kReliableReader
const EntityId_t kUserReader = {{0x00, 0x09, 0x01}, 0x04};
const EntityId_t kReliableReader = {{0x00, 0x09, 0x02}, 0x04};
const EntityId_t kLocalWriter = {{0x00, 0x04, 0x07}, 0x03};
const EntityId_t kBestEffortWriter = {{0x00, 0x04, 0x08}, 0x03};
const EntityId_t kBuiltinReaders[] = {
    ENTITYID_SPDP_BUILTIN_PARTICIPANT_READER, ENTITYID_SEDP_BUILTIN_PUBLICATIONS_READER,
    ENTITYID_SEDP_BUILTIN_SUBSCRIPTIONS_READER, ENTITYID_P2P_BUILTIN_PARTICIPANT_MESSAGE_READER};
const EntityId_t kBuiltinWriters[] = {
    ENTITYID_SPDP_BUILTIN_PARTICIPANT_WRITER, ENTITYID_SEDP_BUILTIN_PUBLICATIONS_WRITER,
    ENTITYID_SEDP_BUILTIN_SUBSCRIPTIONS_WRITER, ENTITYID_P2P_BUILTIN_PARTICIPANT_MESSAGE_WRITER};
const uint32_t kCacheDepth = 8;
// Low, so that inputs reach the reader's drop paths and a long run stays small.
const uint64_t kHeldBytesMax = 16u << 20;

volatile uint32_t g_uiSink;  // keeps the reads of delivered bytes

// What the inputs reached, for the driver's summary.
struct Reached {
    unsigned long run, cut, delivered;
} g_Reached;

// Stands for the data reader: reads every delivered octet, so that a sanitizer sees any
// that lie outside the payload.
class TouchingSink : public ReaderDataSink {
public:
    int DataReceive(CacheChange* pChange) override {
        uint32_t uiSum = 0;
        if (pChange->data != nullptr)
            for (uint32_t i = 0; i < pChange->dataLength; ++i) uiSum += pChange->data[i];
        g_uiSink = g_uiSink + uiSum;
        ++g_Reached.delivered;
        return 0;
    }
    GUID_t getOwnerGuid() override { return GUID_UNKNOWN; }
    void setLastSequenceNumber(const SequenceNumber_t&) override {}
    void livelinessChanged(bool) override {}
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

// A participant with a reader for each built-in writer, a best-effort and a reliable user
// reader, each matched with its remote writer, a reliable and a best-effort writer.
class Harness {
public:
    Harness()
        : m_Discovery(nullptr),
          m_Participant(GUID_t(kLocal, ENTITYID_PARTICIPANT), nullptr, 91, nullptr, &MakeNullTransmitter) {
        m_Participant.setDiscovery(&m_Discovery);
        for (size_t i = 0; i < 4; ++i)
            AddReader(kBuiltinReaders[i], BEST_EFFORT_RELIABILITY_QOS, kBuiltinWriters[i]);
        AddReader(kUserReader, BEST_EFFORT_RELIABILITY_QOS, kRemoteWriter);
        AddReader(kReliableReader, RELIABLE_RELIABILITY_QOS, kReliableWriter);
        DataWriterQos writerQos;
        writerQos.reliability.kind = RELIABLE_RELIABILITY_QOS;
        AddWriter(m_Participant.createWriter(writerQos, kLocalWriter));
        AddWriter(m_Participant.createWriter(writerQos, ENTITYID_SEDP_BUILTIN_PUBLICATIONS_WRITER));
        writerQos.reliability.kind = BEST_EFFORT_RELIABILITY_QOS;
        AddWriter(m_Participant.createWriter(writerQos, kBestEffortWriter));
    }

    void Run(const octet* pData, size_t uiSize) {
        ++g_Reached.run;
        if (m_Participant.getMessageProcessor()->InterpretDatagram(
                pData, uint32_t(std::min<size_t>(uiSize, UINT32_MAX))) == MessageProcessor::INTERPRET_CUT)
            ++g_Reached.cut;
        // A GAP, or an ACKNACK or NACK_FRAG for the wrong class, leaves its endpoint
        // taken by design; giving them back keeps every endpoint reachable for the next input.
        for (Endpoint* pEndpoint : m_Endpoints) m_Participant.returnEndpoint(pEndpoint);
    }

private:
    void AddReader(const EntityId_t& id, ReliabilityQosPolicyKind kind, const EntityId_t& writerId) {
        DataReaderQos qos;
        qos.reliability.kind = kind;
        StatefulReader* pReader = m_Participant.createReader(qos, id);
        if (pReader == nullptr) abort();
        pReader->setHeldBytesMax(kHeldBytesMax);
        m_Caches.emplace_back(new HistoryCache(kCacheDepth));
        pReader->setReaderCache(m_Caches.back().get());
        pReader->setDataReader(&m_Sink);
        const GUID_t writer(kRemote, writerId);
        pReader->matched_writer_add(new WriterProxy(writer, std::list<Locator_t>(), std::list<Locator_t>()));
        // Routing of fragments and of non-built-in writers goes through the matching table.
        m_Discovery.addWriterReaderPair(writer, id);
        m_Endpoints.push_back(pReader);
    }
    void AddWriter(Endpoint* pWriter) {
        if (pWriter == nullptr) abort();
        m_Endpoints.push_back(pWriter);
    }

    TouchingSink m_Sink;
    std::vector<std::unique_ptr<HistoryCache>> m_Caches;  // outlive the participant's readers
    Discovery m_Discovery;
    Participant m_Participant;
    std::vector<Endpoint*> m_Endpoints;
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
// several submessages to a datagram: what a peer of this system sends, including whole
// fragmented samples (one datagram per fragment) for both user readers.
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
    const uint32_t uiSample = 2 * FRAGMENT_SIZE + 900;
    Octets payload(uiSample);
    for (size_t i = 0; i < payload.size(); ++i) payload[i] = octet(i * 7);
    SequenceNumberSet missing;
    missing.bitmapBase = SequenceNumber_t(0, 3);
    missing.numBits = 40;
    missing.bitmap[0] = 0xF0000000u;
    missing.bitmap[1] = 0x80000000u;
    FragmentNumberSet fragments;
    fragments.bitmapBase = 2;
    fragments.numBits = 3;

    for (const EntityId_t& writer : {kRemoteWriter, kReliableWriter}) {
        for (uint32_t sn = 1; sn <= 2; ++sn) {
            start();
            encoder.EncapsulateINFOTSMessage(uiLen, Time_t(5, sn));
            encoder.EncapsulateDATAMessage(uiLen, payload.data(), 300, SequenceNumber_t(0, sn), none, writer);
            finish();
        }
        // Sample 3 in three fragments, the last one short.
        for (uint32_t uiFrag = 1; uiFrag <= 3; ++uiFrag) {
            start();
            encoder.EncapsulateINFOTSMessage(uiLen, Time_t(1, uiFrag));
            encoder.EncapsulateDATAFragMessage(uiLen, payload.data() + (uiFrag - 1) * FRAGMENT_SIZE,
                                               uiFrag == 3 ? 900 : FRAGMENT_SIZE, uiFrag, uiSample,
                                               SequenceNumber_t(0, 3), none, writer);
            finish();
        }
        start();
        encoder.EncapsulateINFODSTMessage(uiLen, kLocal);
        encoder.EncapsulateHeartBeatMessage(uiLen, writer, SequenceNumber_t(0, 2), SequenceNumber_t(0, 6),
                                            16);
        finish();
        start();
        encoder.EncapsulateINFODSTMessage(uiLen, kLocal);
        encoder.EncapsulateINFOTSMessage(uiLen, Time_t(3, 4));
        encoder.EncapsulateGapMessage(uiLen, writer, kUserReader, SequenceNumber_t(0, 4), missing);
        encoder.EncapsulateDATAMessage(uiLen, payload.data(), FRAGMENT_SIZE, SequenceNumber_t(0, 5), none,
                                       writer);
        finish();
    }
    for (const EntityId_t& writer : kBuiltinWriters) {
        start();
        encoder.EncapsulateINFOTSMessage(uiLen, Time_t(7, 8));
        encoder.EncapsulateDATAMessage(uiLen, payload.data(), 64, SequenceNumber_t(0, 2), withdraw, writer);
        finish();
    }
    start();
    encoder.EncapsulateINFODSTMessage(uiLen, kLocal);
    encoder.EncapsulateHeartBeatMessage(uiLen, ENTITYID_SEDP_BUILTIN_PUBLICATIONS_WRITER,
                                        SequenceNumber_t(0, 1), SequenceNumber_t(0, 9), 15);
    encoder.EncapsulateAckNackMessage(uiLen, kLocalWriter, kUserReader, missing);
    encoder.EncapsulateNackFragMessage(uiLen, kLocalWriter, kUserReader, SequenceNumber_t(0, 4), fragments);
    encoder.EncapsulateAckNackMessage(uiLen, kBestEffortWriter, kUserReader, missing);
    finish();
    return seeds;
}

std::vector<Octets> ReadCorpus(const std::string& strDir) {
    std::vector<std::string> names;
    if (DIR* pDir = opendir(strDir.c_str())) {
        while (dirent* pEntry = readdir(pDir))
            if (pEntry->d_name[0] != '.') names.push_back(pEntry->d_name);
        closedir(pDir);
    }
    std::sort(names.begin(), names.end());  // the order of a run must not depend on the file system
    std::vector<Octets> corpus;
    for (const std::string& strName : names) {
        std::ifstream file(strDir + "/" + strName, std::ios::binary);
        corpus.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    }
    return corpus;
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
        char szName[32];
        snprintf(szName, sizeof(szName), "/seed_%02zu", i);
        const std::string strPath = std::string(szDir) + szName;
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
    std::vector<const char*> args;
    std::string strCorpus;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--corpus") == 0 && i + 1 < argc)
            strCorpus = argv[++i];
        else
            args.push_back(argv[i]);
    }
    const unsigned long ulIterations = args.size() > 0 ? std::strtoul(args[0], nullptr, 10) : 20000;
    const unsigned long ulSeed = args.size() > 1 ? std::strtoul(args[1], nullptr, 10) : 1;
    const unsigned long ulSeconds = args.size() > 2 ? std::strtoul(args[2], nullptr, 10) : 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(ulSeconds);

    std::vector<Octets> corpus = strCorpus.empty() ? MakeSeeds() : ReadCorpus(strCorpus);
    if (corpus.empty()) {
        fprintf(stderr, "decoder_fuzz: no seeds in %s\n", strCorpus.c_str());
        return 1;
    }
    for (const Octets& seed : corpus) LLVMFuzzerTestOneInput(seed.data(), seed.size());
    const unsigned long ulSeedDeliveries = g_Reached.delivered;
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
        "decoder_fuzz: %lu datagrams, seed %lu, %zu seeds: %lu run (%lu cut); %lu samples delivered (%lu by "
        "the seeds)\n",
        ulDone, ulSeed, uiSeeds, g_Reached.run, g_Reached.cut, g_Reached.delivered, ulSeedDeliveries);
    // The seeds alone must reach both readers' delivery, fragments included.
    return ulSeedDeliveries >= 4 ? 0 : 1;
}
#endif
