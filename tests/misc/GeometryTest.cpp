#include <KepNuvikaUtil/HMatrix2D.h>
#include <KepNuvikaUtil/NUVIKA_RECT.h>
#include <KepNuvikaUtil/NUVIKA_SIZE.h>

#include <gtest/gtest.h>
#include <limits>

namespace
{
constexpr double kPi = 3.14159265358979323846;

void expectAt(const HVector2D& v, double x, double y)
{
    EXPECT_NEAR(v.x(), x, 1e-12);
    EXPECT_NEAR(v.y(), y, 1e-12);
}
} // namespace

TEST(HMatrix2D, ComposesInTheOrderThatIsSaid)
{
    expectAt(HMatrix2D::fromRotation(kPi / 2).transform({1, 0}), 0, 1);
    expectAt(HMatrix2D().translate(3, 4).scale(2, 2).transform({0, 0}), 6, 8);
    expectAt(HMatrix2D().scale(2, 2).translate(3, 4).transform({0, 0}), 3, 4);
    expectAt(HMatrix2D().translatePrepend(3, 4).scalePrepend(2, 2).transform({1, 1}), 5, 6);
    expectAt(HMatrix2D().rotate(kPi / 2).rotatePrepend(-kPi / 2).transform({5, 6}), 5, 6);
    expectAt(HMatrix2D().rotateAt(kPi, 1, 1).transform({2, 1}), 0, 1);
    expectAt(HMatrix2D().scaleAt(3, 3, 1, 1).transform({2, 1}), 4, 1);
    const HMatrix2D shift = HMatrix2D::fromTranslation(10, 0);
    expectAt(HMatrix2D(shift).rotateAt(kPi, 1, 1).transform({2, 1}), -10, 1);
    expectAt(HMatrix2D(shift).rotateAtPrepend(kPi, 1, 1).transform({2, 1}), 10, 1);
    expectAt(HMatrix2D(shift).scaleAtPrepend(3, 3, 1, 1).transform({2, 1}), 14, 1);
    HMatrix2D self = HMatrix2D::fromScaleAndTranslation(2, 3, 4, 5);
    self.append(self);
    EXPECT_EQ(self, HMatrix2D(4, 9, 12, 20));
    HMatrix2D before = HMatrix2D::fromScale(2, 2);
    before.prepend(HMatrix2D::fromTranslation(1, 1));
    EXPECT_EQ(before, HMatrix2D(2, 2, 2, 2));
}

TEST(HMatrix2D, InvertsWhatIsNotSingular)
{
    HMatrix2D m = HMatrix2D().rotate(0.3).scale(2, -5).translate(7, 8).rotate(1);
    HMatrix2D inverse = m;
    ASSERT_TRUE(inverse.invert());
    expectAt((m * inverse).transform({3, -4}), 3, -4);
    EXPECT_NEAR(m.determinant(), -10, 1e-12);
    HMatrix2D flat(1e-101, 1, 5, 6);
    EXPECT_FALSE(flat.invert());
    EXPECT_EQ(flat, HMatrix2D(1e-101, 1, 5, 6));
    const double nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_NE(HMatrix2D(nan, 1, 0, 0), HMatrix2D(nan, 1, 0, 0));
    EXPECT_EQ(HMatrix2D(-0.0, 1, 0, 0), HMatrix2D(0.0, 1, 0, 0));
}

TEST(Rectangles, ConvertBetweenInclusiveAndExclusive)
{
    NUVIKA_RECT rect(0, 0, 10, 5);
    EXPECT_EQ(rect.width(), 10);
    EXPECT_EQ(rect.height(), 5);
    EXPECT_FALSE(rect.isEmpty());
    EXPECT_EQ(rect.toQRect(), QRect(QPoint(0, 0), QPoint(9, 4)));
    EXPECT_EQ(NUVIKA_RECT::fromQRect(rect.toQRect()), rect);
    EXPECT_TRUE(NUVIKA_RECT(5, 0, 5, 5).isEmpty());
    rect.moveBy(1, 2);
    EXPECT_EQ(rect, NUVIKA_RECT(1, 2, 11, 7));
    rect.moveTopLeftTo(-3, -4);
    EXPECT_EQ(rect, NUVIKA_RECT(-3, -4, 7, 1));
    EXPECT_EQ(NUVIKA_RECT::fromWinRect(rect.toWinRect()), rect);
    const int most = std::numeric_limits<int>::max();
    EXPECT_EQ(NUVIKA_RECT(-most, 0, most, 0).width(), -2) << "wraps, and is defined";
    static_assert(sizeof(NUVIKA_RECT) == 16 && sizeof(NUVIKA_SIZE) == 8, "the records' layout");
}

TEST(Sizes, ConvertWithTheirAsymmetry)
{
    EXPECT_FALSE(NUVIKA_SIZE(-1, 5).isEmpty());
    EXPECT_TRUE(NUVIKA_SIZE(0, 5).isEmpty());
    EXPECT_EQ(NUVIKA_SIZE::fromQSize(QSize(640, 480)), NUVIKA_SIZE(640, 640));
    EXPECT_EQ(NUVIKA_SIZE(640, 480).toQSize(), QSize(640, 480));
    EXPECT_EQ(NUVIKA_SIZE::fromQRect(QRect(2, 3, 10, 20)), NUVIKA_SIZE(10, 20));
    EXPECT_EQ(NUVIKA_SIZE::fromRect(NUVIKA_RECT(1, 2, 4, 8)), NUVIKA_SIZE(3, 6));
    EXPECT_EQ(NUVIKA_SIZE::fromWinRect({1, 2, 4, 8}), NUVIKA_SIZE(3, 6));
    EXPECT_EQ(NUVIKA_SIZE::fromWinSize(NUVIKA_SIZE(7, 8).toWinSize()), NUVIKA_SIZE(7, 8));
}
