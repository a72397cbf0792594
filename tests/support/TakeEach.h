// Takes every sample a reader holds. take hands over every other sample per call,
// so a reader that wants them all calls it until a call brings nothing. Runs on
// whatever thread calls it (usually the process thread, inside on_data_available).
#pragma once

#include "DataReader.h"

// Calls fn(UserData&) for each sample taken; fn owns the buffer and frees it with free().
template <typename Fn>
void TakeEach(DataReader* pReader, Fn fn, int iCallsMax = 16) {
    for (int iCall = 0; iCall < iCallsMax; ++iCall) {
        std::vector<UserData> values;
        SampleInfoSeq infos;
        pReader->take(values, infos, LENGTH_UNLIMITED, 0, 0, 0);
        bool bAny = false;
        for (UserData& value : values) {
            if (value.data == nullptr) continue;  // the tail that take leaves empty
            bAny = true;
            fn(value);
        }
        if (!bAny) break;
    }
}
