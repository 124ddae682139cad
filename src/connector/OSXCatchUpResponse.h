#pragma once

#include <boost/describe.hpp>
#include <cstdint>
#include <vector>

#include "store/TWVirtualFile.h"

namespace tarnwell {

/// One page of a share's changes.
struct OSXCatchUpResponse {
    std::vector<TWVirtualFilePtr> TwVirtualFiles;
    std::int32_t ShareTick = 0;    ///< the share's present tick on the server
    std::int32_t LargestTick = 0;  ///< the largest tick in this page
};
BOOST_DESCRIBE_STRUCT(OSXCatchUpResponse, (), (TwVirtualFiles, ShareTick, LargestTick))

}  // namespace tarnwell
