#include <gtest/gtest.h>
#include <travik/timeval.h>

namespace {

travik_time tv(long s, long us) {
  travik_time t;
  t.tv_sec = s;
  t.tv_usec = us;
  return t;
}

TEST(Time, SubBorrowsOnce) {
  travik_time a = tv(5, 200), b = tv(3, 700), r;
  travik_time_sub(&r, &a, &b);
  EXPECT_EQ(r.tv_sec, 1);
  EXPECT_EQ(r.tv_usec, 999500);
}

TEST(Time, SubWithoutBorrow) {
  travik_time a = tv(5, 900), b = tv(3, 700), r;
  travik_time_sub(&r, &a, &b);
  EXPECT_EQ(r.tv_sec, 2);
  EXPECT_EQ(r.tv_usec, 200);
}

TEST(Time, SubIntoFirstOperand) {
  travik_time a = tv(5, 200), b = tv(3, 700);
  travik_time_sub(&a, &a, &b);
  EXPECT_EQ(a.tv_sec, 1);
  EXPECT_EQ(a.tv_usec, 999500);
}

TEST(Time, AddCarriesOnce) {
  travik_time a = tv(1, 600000), b = tv(0, 500000), r;
  travik_time_add(&r, &a, &b);
  EXPECT_EQ(r.tv_sec, 2);
  EXPECT_EQ(r.tv_usec, 100000);
}

TEST(Time, AddIntoFirstOperand) {
  travik_time a = tv(1, 999999), b = tv(0, 1);
  travik_time_add(&a, &a, &b);
  EXPECT_EQ(a.tv_sec, 2);
  EXPECT_EQ(a.tv_usec, 0);
}

TEST(Time, NonNormalisedInputsStayNonNormalised) {
  // Only one carry: 1.9s + 1.9s given as (0, 1900000) twice.
  travik_time a = tv(0, 1900000), b = tv(0, 1900000), r;
  travik_time_add(&r, &a, &b);
  EXPECT_EQ(r.tv_sec, 1);
  EXPECT_EQ(r.tv_usec, 2800000);
  // Only one borrow.
  travik_time c = tv(5, 0), d = tv(0, 2500000);
  travik_time_sub(&r, &c, &d);
  EXPECT_EQ(r.tv_sec, 4);
  EXPECT_EQ(r.tv_usec, -1500000);
}

TEST(Time, Compare) {
  travik_time a = tv(2, 0), b = tv(1, 999999);
  EXPECT_EQ(travik_time_compare(&a, &b), 1);
  EXPECT_EQ(travik_time_compare(&b, &a), -1);
  EXPECT_EQ(travik_time_compare(&a, &a), 0);
  travik_time c = tv(2, 5), d = tv(2, 7);
  EXPECT_EQ(travik_time_compare(&c, &d), -1);
  EXPECT_EQ(travik_time_compare(&d, &c), 1);
}

TEST(Time, CompareUsesThe32BitDifference) {
  // Seconds that differ by more than 2^31 compare by the wrapped difference
  // (values that fit a 32-bit time_t too).
  travik_time a = tv(0x7FFFFFFFL, 0), b = tv(-2L, 0);
  EXPECT_EQ(travik_time_compare(&a, &b), -1);
}

TEST(Time, ZeroAndCurrent) {
  EXPECT_EQ(travik_time_zero.tv_sec, 0);
  EXPECT_EQ(travik_time_zero.tv_usec, 0);
  travik_time now;
  EXPECT_EQ(travik_time_setcurrent(&now), 0);
  EXPECT_EQ(travik_time_compare(&now, &travik_time_zero), 1);
  EXPECT_GE(now.tv_usec, 0);
  EXPECT_LT(now.tv_usec, 1000000);
}

}  // namespace
