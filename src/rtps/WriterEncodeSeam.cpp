// The DATA encoders that take a writer read only its entity id. They are
// defined here, on the rtps side, so that the message layer needs no writer.
#include "messages/MessageProcessor.h"
#include "rtps/Writer.h"

namespace {
EntityId_t WriterIdOf(const Writer* pWriter) {
    return pWriter != nullptr ? pWriter->getEntityId() : ENTITYID_UNKNOWN;
}
}  // namespace

octet* MessageProcessor::EncapsulateDATAMessage(uint32_t& uiMessageLen, const octet* pData,
                                                uint32_t uiDataLen, const SequenceNumber_t& writerSN,
                                                const std::list<Parameter>& inlineQos, Writer* pWriter) {
    return EncapsulateDATAMessage(uiMessageLen, pData, uiDataLen, writerSN, inlineQos, WriterIdOf(pWriter));
}

octet* MessageProcessor::EncapsulateDATAFragMessage(uint32_t& uiMessageLen, const octet* pFragment,
                                                    uint32_t uiFragmentLen, uint32_t uiFragmentNum,
                                                    uint32_t uiSampleSize, const SequenceNumber_t& writerSN,
                                                    const std::list<Parameter>& inlineQos, Writer* pWriter) {
    return EncapsulateDATAFragMessage(uiMessageLen, pFragment, uiFragmentLen, uiFragmentNum, uiSampleSize,
                                      writerSN, inlineQos, WriterIdOf(pWriter));
}
