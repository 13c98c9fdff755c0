// Sound files and the measurements the real-server tests make on them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace realserver {

struct Wav {
    bool ok = false;
    std::string error;
    int sampleRate = 0;
    int channels = 0;
    int format = 0;          // libsndfile's SF_FORMAT_* bits
    std::vector<double> samples;   // first channel, in 16-bit units
};

Wav readWav(const std::string& path);

// Speaks text with espeak-ng in the given voice into a 16000 Hz mono 16-bit
// WAV at path (espeak-ng renders at its own rate; sox converts).
bool speak(const std::string& voice, const std::string& text, const std::string& path, std::string* error);
std::vector<int16_t> readSamples16(const std::string& path);

// Mean square of samples [from, to).
double meanSquare(const std::vector<double>& x, std::size_t from, std::size_t to);
// 10·log10(a / b); a silent b counts as a very small number, not zero.
double ratioDb(double a, double b);

struct Lag {
    std::size_t samples = 0;   // how much later y carries x
    double correlation = 0;    // normalised peak, -1..1
};

// The lag in [0, maxLag] at which y best matches x (cross-correlation peak).
Lag findLag(const std::vector<double>& x, const std::vector<double>& y, std::size_t maxLag);

} // namespace realserver
