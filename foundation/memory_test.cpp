#include "foundation/memory.h"

#include <gtest/gtest.h>
