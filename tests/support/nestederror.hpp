#pragma once
// Code that ends with an error raised in a catch block, and the check of what a request of it
// ends with: the outer error with its one frame, and the caught error as its only cause, with
// the two frames it was raised under. The same on every road an evaluation takes.
#include <quorl/cmddistributor/runtimeexception.hpp>

#include <gtest/gtest.h>

#include <string>

namespace quorl_testing {

inline std::u16string const nestedErrorCode = u"y = outerf(3);\n"
                                              u"function r = outerf(x)\n"
                                              u"  try\n"
                                              u"    r = innerf(x);\n"
                                              u"  catch\n"
                                              u"    error('nested:outer', 'outer gave up');\n"
                                              u"  end\n"
                                              u"end\n"
                                              u"function r = innerf(x)\n"
                                              u"  error('nested:inner', 'inner failed on %d', x);\n"
                                              u"end\n";

inline void expectNestedError(cmddistributor::RuntimeException const& e) {
    EXPECT_EQ(e.getExecutionStatus(), quorl::cmddistributor::ExecutionError);
    EXPECT_EQ(e.GetID(), "nested:outer");
    EXPECT_STREQ(e.what(), "outer gave up");
    EXPECT_EQ(e.getFunctionName(), "outerf");
    // Code typed in has no frame of its own: the stack holds the functions' frames.
    auto const& frames = e.getStackFrames();
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].func, "outerf");
    EXPECT_EQ(frames[0].line, 6.0);
    EXPECT_TRUE(frames[0].file.empty());

    ASSERT_EQ(e.getCauses().size(), 1u);
    cmddistributor::RuntimeException const& cause = e.getCauses()[0];
    EXPECT_EQ(cause.getExecutionStatus(), quorl::cmddistributor::ExecutionError);
    EXPECT_EQ(cause.GetID(), "nested:inner");
    EXPECT_STREQ(cause.what(), "inner failed on 3");
    auto const& inner = cause.getStackFrames();
    ASSERT_EQ(inner.size(), 2u);
    EXPECT_EQ(inner[0].func, "innerf");
    EXPECT_EQ(inner[0].line, 10.0);
    EXPECT_EQ(inner[1].func, "outerf");
    EXPECT_EQ(inner[1].line, 4.0);
    EXPECT_TRUE(cause.getCauses().empty());
}

} // namespace quorl_testing
