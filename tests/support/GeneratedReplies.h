#pragma once

#include <array>

#include <QByteArray>
#include <QtGlobal>

// Reply frames made up from varying values, for tests that send many of them
// (numbered replies in floods, stress and reopen tests). Tests that send a
// handful of replies write them out instead.
//
// A frame is "[" "R", then B0..B6 and the check byte as hex digit pairs, then
// "]"; the check byte is the 8-bit sum of B0..B6. This file works that out on
// its own, byte by byte, and calls nothing of the library. Every test that
// uses it also compares one of its frames with one written out.
namespace generatedreplies {

enum class Digits { Upper, Lower };

// The frame of B0..B6 with the check byte their sum.
QByteArray replyFrame(const std::array<quint8, 7> &bytes, Digits digits = Digits::Upper);

// bytes followed by their 8-bit sum: a block with the right check byte.
QByteArray blockWithSum(const QByteArray &bytes);

} // namespace generatedreplies
