#include <gtest/gtest.h>
#include <hv/hvarray.hpp>
