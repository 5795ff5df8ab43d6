#pragma once

#include "core/AppError.h"

#include <QByteArray>
#include <QString>
#include <cstdint>

namespace vemira {

// Headers of the two containers we write, for 32-bit float mono little-endian samples.
// Core Audio Format for the growing per-track files: its data chunk may say "size unknown",
// so a track stays readable however the call ends. WAV for the finished recording.
namespace AudioFiles {

// CAF header whose data chunk runs to the end of the file. Fixed length: kCafHeaderBytes.
QByteArray cafHeader(double sampleRate);
inline constexpr qint64 kCafHeaderBytes = 8 + 12 + 32 + 12 + 4;

// Canonical 44+ byte float WAV header (fmt with WAVE_FORMAT_IEEE_FLOAT, fact, data).
QByteArray wavFloatHeader(double sampleRate, std::int64_t frames);
inline constexpr qint64 kWavHeaderBytes = 12 + 26 + 12 + 8;

// Frames of a float mono WAV file we wrote (or any float/PCM16 mono WAV), or an error.
Result<std::int64_t> wavFrames(const QString& path);

} // namespace AudioFiles

} // namespace vemira
