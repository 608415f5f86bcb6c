// Assertions shared by every test.
#pragma once

#include <gtest/gtest.h>

#include <string>

// Checks that the statement throws exactly ExceptionType (or a subclass) with the exact message.
#define EXPECT_THROW_MSG(statement, ExceptionType, expectedMessage)                    \
    do {                                                                               \
        try {                                                                          \
            static_cast<void>(statement);                                              \
            ADD_FAILURE() << "Expected " #statement " to throw " #ExceptionType;       \
        } catch (const ExceptionType& caught) {                                        \
            EXPECT_EQ(std::string(caught.what()), std::string(expectedMessage));       \
        } catch (const std::exception& other) {                                        \
            ADD_FAILURE() << "Expected " #ExceptionType ", caught another exception: " \
                          << other.what();                                             \
        }                                                                              \
    } while (false)
