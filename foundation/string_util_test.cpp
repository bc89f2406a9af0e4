#include "foundation/string_util.h"

#include <gtest/gtest.h>
