// The loaded FolderMerge with its own instance on C:, the target instance that the file access
// helpers and the requests' file opens take.
#pragma once

#include "filter_fixture.hpp"

#include "driver/globals.h"
#include "driver/mergefolders.h"

namespace foldermerge::testing {

class LoadedFilterOnVolume : public LoadedFilter {
protected:
    static constexpr char16_t kVolume[] = u"\\Device\\HarddiskVolume2";

    void SetUp() override
    {
        LoadedFilter::SetUp();
        if (HasFatalFailure()) {
            return;
        }
        ntsim::UnicodeStringHolder root(std::u16string(kVolume) + u"\\");
        ASSERT_EQ(GetVolumeInstanceForPath(g_ServiceData.FilterHandle, root.get(), &instance_), STATUS_SUCCESS);
        FltObjectDereference(instance_);  // the instance lives as long as the driver is attached
    }

    PFLT_INSTANCE instance_ = nullptr;
};

}  // namespace foldermerge::testing
