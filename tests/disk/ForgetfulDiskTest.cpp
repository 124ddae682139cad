#include <gtest/gtest.h>
#include "disk/ForgetfulDisk.h"
