#include "foundation/event.h"

#include <gtest/gtest.h>
