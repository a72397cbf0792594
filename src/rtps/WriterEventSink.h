// What the protocol writer needs from the layer above it (the DataWriterImpl),
// so that rtps never includes dcps headers. Called on the lease-check timer
// thread, outside the writer's liveliness lock.
#pragma once

class WriterEventSink {
public:
    virtual ~WriterEventSink() = default;

    // The writer's liveliness lease ran out while it was active.
    virtual void livelinessLost() = 0;
};
