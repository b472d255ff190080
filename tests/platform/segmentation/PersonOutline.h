#pragma once

#include <cstddef>
#include <vector>

namespace kestrova::test {

/// The astronaut of the photo, with what she wears and holds: drawn by hand along her outline over
/// the photo at twice its size. Where the mask that is tested comes from had no part in it.
struct PersonOutline {
  struct Point {
    double x;
    double y;
  };
  static constexpr int side = 512;  ///< of the photo
  static const std::vector<Point>& points();

  /// Whether a place, from 0 to 1 in each direction, is on her.
  static bool contains(double x, double y) {
    const auto& outline = points();
    bool inside = false;
    const Point at{x * side, y * side};
    for (std::size_t i = 0, before = outline.size() - 1; i < outline.size(); before = i++) {
      const auto& a = outline[i];
      const auto& b = outline[before];
      if ((a.y > at.y) != (b.y > at.y) && at.x < (b.x - a.x) * (at.y - a.y) / (b.y - a.y) + a.x)
        inside = !inside;
    }
    return inside;
  }
};

inline const std::vector<PersonOutline::Point>& PersonOutline::points() {
  static const std::vector<Point> outline{
      {31, 512},    {25, 470},      {23, 435},      {21, 410},      {19, 395},    {25, 360},
      {28, 335},    {33, 320},      {39, 300},      {42, 285},      {50, 272.5},  {56, 257.5},
      {67.5, 240},  {82.5, 232.5},  {97.5, 225},    {107.5, 212.5}, {116, 206},   {113, 190},
      {120, 185},   {124, 170},     {134, 159},     {150, 150},     {170, 148},   {184, 149},
      {184, 134},   {172.5, 119},   {162.5, 107.5}, {156, 95},      {154, 75},    {155, 65},
      {162.5, 55},  {177.5, 44},    {190, 37.5},    {197.5, 26},    {215, 17.5},  {235, 15.5},
      {255, 22.5},  {272.5, 29},    {285, 42.5},    {294, 55},      {300, 72.5},  {301.5, 87.5},
      {299, 102.5}, {292.5, 115},   {282.5, 126},   {276, 129},     {274, 136},   {266.5, 137},
      {265, 150},   {259, 165},     {256, 174},     {272.5, 184},   {290, 202.5}, {300, 220},
      {305, 235},   {320, 242.5},   {332.5, 250},   {342.5, 262.5}, {350, 280},   {356, 300},
      {359, 320},   {362, 345},     {380, 344},     {405, 343},     {425, 347},   {450, 357.5},
      {470, 375},   {482.5, 392.5}, {492.5, 415},   {496, 435},     {498, 455},   {505, 462.5},
      {509, 480},   {511, 495},     {510, 512}};
  return outline;
}

}  // namespace kestrova::test
