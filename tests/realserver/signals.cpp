#include "signals.h"

#include "virtualroom.h"

#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdio>

namespace realserver {

Wav readWav(const std::string& path)
{
    Wav wav;
    SF_INFO info = {};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    if (!file) {
        wav.error = path + ": " + sf_strerror(nullptr);
        return wav;
    }
    wav.sampleRate = info.samplerate;
    wav.channels = info.channels;
    wav.format = info.format;
    std::vector<short> frames(static_cast<std::size_t>(info.frames) * info.channels);
    const sf_count_t read = sf_readf_short(file, frames.data(), info.frames);
    sf_close(file);
    if (read != info.frames) {
        wav.error = path + ": short read";
        return wav;
    }
    wav.samples.reserve(static_cast<std::size_t>(info.frames));
    for (std::size_t i = 0; i < frames.size(); i += info.channels)
        wav.samples.push_back(frames[i]);
    wav.ok = true;
    return wav;
}

bool speak(const std::string& voice, const std::string& text, const std::string& path, std::string* error)
{
    const std::string raw = path + ".espeak.wav";
    const CommandResult r = run("espeak-ng -v " + shellQuote(voice) + " -w " + shellQuote(raw) + " " + shellQuote(text) +
                                " && sox " + shellQuote(raw) + " -r 16000 -c 1 -b 16 " + shellQuote(path));
    std::remove(raw.c_str());
    if (r.status != 0 && error)
        *error = "espeak-ng/sox failed for voice " + voice + ":\n" + r.output;
    return r.status == 0;
}

std::vector<int16_t> readSamples16(const std::string& path)
{
    const Wav wav = readWav(path);
    std::vector<int16_t> result;
    result.reserve(wav.samples.size());
    for (double s : wav.samples)
        result.push_back(static_cast<int16_t>(s));
    return result;
}

double meanSquare(const std::vector<double>& x, std::size_t from, std::size_t to)
{
    to = std::min(to, x.size());
    if (from >= to)
        return 0;
    double sum = 0;
    for (std::size_t i = from; i < to; ++i)
        sum += x[i] * x[i];
    return sum / static_cast<double>(to - from);
}

double ratioDb(double a, double b)
{
    const double floor = 1e-9;
    return 10.0 * std::log10((a + floor) / (b + floor));
}

namespace {

using Complex = std::complex<double>;

// In-place iterative radix-2 FFT; a.size() must be a power of two.
void fft(std::vector<Complex>& a, bool inverse)
{
    const std::size_t n = a.size();
    for (std::size_t i = 1, j = 0; i < n; ++i) {
        std::size_t bit = n >> 1;
        for (; j & bit; bit >>= 1)
            j ^= bit;
        j ^= bit;
        if (i < j)
            std::swap(a[i], a[j]);
    }
    for (std::size_t len = 2; len <= n; len <<= 1) {
        const double angle = 2 * std::acos(-1.0) / static_cast<double>(len) * (inverse ? 1 : -1);
        const Complex step(std::cos(angle), std::sin(angle));
        for (std::size_t i = 0; i < n; i += len) {
            Complex w(1);
            for (std::size_t k = 0; k < len / 2; ++k) {
                const Complex u = a[i + k];
                const Complex v = a[i + k + len / 2] * w;
                a[i + k] = u + v;
                a[i + k + len / 2] = u - v;
                w *= step;
            }
        }
    }
    if (inverse) {
        for (auto& v : a)
            v /= static_cast<double>(n);
    }
}

} // namespace

Lag findLag(const std::vector<double>& x, const std::vector<double>& y, std::size_t maxLag)
{
    Lag best;
    const std::size_t length = std::max(x.size(), y.size());
    if (length == 0)
        return best;
    std::size_t n = 1;
    while (n < 2 * length)
        n <<= 1;
    std::vector<Complex> fx(n), fy(n);
    for (std::size_t i = 0; i < x.size(); ++i)
        fx[i] = x[i];
    for (std::size_t i = 0; i < y.size(); ++i)
        fy[i] = y[i];
    fft(fx, false);
    fft(fy, false);
    for (std::size_t i = 0; i < n; ++i)
        fy[i] *= std::conj(fx[i]);
    fft(fy, true);   // fy[k] = sum over i of x[i]·y[i + k]

    double bestValue = 0;
    for (std::size_t k = 0; k <= maxLag && k < n; ++k) {
        if (std::abs(fy[k].real()) > std::abs(bestValue)) {
            bestValue = fy[k].real();
            best.samples = k;
        }
    }
    const double ex = meanSquare(x, 0, x.size()) * static_cast<double>(x.size());
    const double ey = meanSquare(y, 0, y.size()) * static_cast<double>(y.size());
    best.correlation = (ex > 0 && ey > 0) ? bestValue / std::sqrt(ex * ey) : 0;
    return best;
}

} // namespace realserver
