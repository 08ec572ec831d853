/* Helpers shared by the db tests: what a call printed on standard error. */
#ifndef REBOX_TESTS_DB_HELPERS_H
#define REBOX_TESTS_DB_HELPERS_H

#include <gtest/gtest.h>

#include <string>

/* stderr_of - run f; what it printed on standard error */
template <typename F> std::string stderr_of(F f)
{
    testing::internal::CaptureStderr();
    f();
    return testing::internal::GetCapturedStderr();
}

/* has - whether text contains part */
inline bool has(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

#endif
