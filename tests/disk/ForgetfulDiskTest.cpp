#include "disk/ForgetfulDisk.h"
#include <gtest/gtest.h>
