// The library's general exception: its text, its copy rule, its code and its printed form.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "libqbutil/QBException.h"

TEST(QBException, DefaultConstructedHoldsEmptyText) {
    QBException e;
    EXPECT_EQ(e.text(), "");
    EXPECT_EQ(e.getCode(), 0u);
    EXPECT_EQ(e.cachedWhat(), "");
}

TEST(QBException, InsertionsAppendToText) {
    QBException e;
    e << "abc";
    e << 12 << '-' << "x";
    EXPECT_EQ(e.text(), "abc12-x");
}

TEST(QBException, TextConstructorStartsWithTextAndAppends) {
    QBException e(std::string("start"));
    EXPECT_EQ(e.text(), "start");
    e << "+more";
    EXPECT_EQ(e.text(), "start+more");
}

TEST(QBException, CopyCarriesTextAndAppendsIndependently) {
    QBException source;
    source << "abc";
    QBException copy(source);
    EXPECT_EQ(copy.text(), "abc");
    copy << "d";
    EXPECT_EQ(copy.text(), "abcd");
    EXPECT_EQ(source.text(), "abc");
    source << "z";
    EXPECT_EQ(source.text(), "abcz");
    EXPECT_EQ(copy.text(), "abcd");
}

TEST(QBException, CopyOfEmptyExceptionIsEmpty) {
    QBException source;
    QBException copy(source);
    EXPECT_EQ(copy.text(), "");
    copy << "x";
    EXPECT_EQ(copy.text(), "x");
    EXPECT_EQ(source.text(), "");
}

TEST(QBException, CopyLeavesStringFieldEmptyEvenIfSourceFilledIt) {
    QBException source;
    source << "abc";
    EXPECT_STREQ(source.what(), "abc");
    EXPECT_EQ(source.cachedWhat(), "abc");
    QBException copy(source);
    EXPECT_EQ(copy.cachedWhat(), "");
    EXPECT_EQ(copy.text(), "abc");
}

TEST(QBException, CopyCarriesCode) {
    QBException source;
    source.setCode(24);
    QBException copy(source);
    EXPECT_EQ(copy.getCode(), 24u);
    copy.setCode(7);
    EXPECT_EQ(source.getCode(), 24u);
}

TEST(QBException, WhatReturnsTextOrClassName) {
    QBException empty;
    EXPECT_STREQ(empty.what(), "QBException");
    QBException withText;
    withText << "failed to open pipe";
    EXPECT_STREQ(withText.what(), "failed to open pipe");
    withText << " twice";
    EXPECT_STREQ(withText.what(), "failed to open pipe twice");
}

TEST(QBException, WhatThroughStdExceptionReference) {
    QBException e;
    e << "via base";
    const std::exception& base = e;
    EXPECT_STREQ(base.what(), "via base");
}

TEST(QBException, StreamOperatorWritesClassNameAndText) {
    std::ostringstream withText;
    QBException e;
    e << "bad data";
    withText << e;
    EXPECT_EQ(withText.str(), "QBException: bad data");

    std::ostringstream empty;
    empty << QBException();
    EXPECT_EQ(empty.str(), "QBException");
}

TEST(QBException, ThrownByValueCaughtByReferenceKeepsText) {
    bool caught = false;
    try {
        QBException local;
        local << "thrown text";
        local.setCode(5);
        throw local;
    } catch (QBException& e) {
        caught = true;
        EXPECT_EQ(e.text(), "thrown text");
        EXPECT_EQ(e.getCode(), 5u);
        EXPECT_STREQ(e.what(), "thrown text");
        e << " and more";
        EXPECT_EQ(e.text(), "thrown text and more");
    }
    EXPECT_TRUE(caught);
}

TEST(QBException, CaughtAsStdException) {
    bool caught = false;
    try {
        throw QBException(std::string("as std"));
    } catch (const std::exception& e) {
        caught = true;
        EXPECT_STREQ(e.what(), "as std");
    }
    EXPECT_TRUE(caught);
}

TEST(QBException, DeletedThroughStreamBasePointer) {
    // The destructor is virtual: deleting through the stream base destroys the whole object
    // (a leak or a mismatched delete here would be reported by the address sanitizer build).
    std::ostream* os = new QBException(std::string("heap"));
    *os << " text";
    EXPECT_EQ(static_cast<QBException*>(os)->text(), "heap text");
    delete os;
}

TEST(QBExceptionWhat, RepeatedCallsReturnTheSamePointerToTheSameText) {
    // Longer than any small-string buffer, so that a rebuilt text would live elsewhere.
    const std::string text(100, 'x');
    QBException e(text);
    const char* first = e.what();
    const char* second = e.what();
    EXPECT_EQ(first, second);
    EXPECT_EQ(text, std::string(first));
}

TEST(QBExceptionWhat, EarlierPointerKeepsItsTextAfterMoreIsInserted) {
    QBException e(std::string(60, 'a'));
    const char* before = e.what();
    e << std::string(60, 'b');
    const char* after = e.what();
    EXPECT_EQ(std::string(60, 'a'), std::string(before));
    EXPECT_EQ(std::string(60, 'a') + std::string(60, 'b'), std::string(after));
    e << "c";
    const char* last = e.what();
    EXPECT_EQ(std::string(60, 'a') + std::string(60, 'b') + "c", std::string(last));
    EXPECT_EQ(std::string(60, 'a'), std::string(before));
    EXPECT_EQ(std::string(60, 'a') + std::string(60, 'b'), std::string(after));
    EXPECT_EQ(last, e.what());
}

TEST(QBExceptionWhat, ConcurrentCallsAgreeAndDoNotRace) {
    const std::string text(200, 'z');
    const QBException e(text);
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 2000; ++i) {
                const char* w = e.what();
                if (std::strcmp(w, text.c_str()) != 0) {
                    ++wrong;
                }
            }
        });
    }
    for (auto& t : threads) {
        t.join();
    }
    EXPECT_EQ(0, wrong.load());
}
