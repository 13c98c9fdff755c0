// Diagnostic recordings for measuring the echo canceller: raw capture,
// processed capture and playback, mono 16-bit at the client rate, in the
// home directory, aligned chunk for chunk by the pipeline.
#include "taudio2universaldevice_p.h"

#include <shared/debugstream.h>

#include <QDir>
#include <QFile>
#include <QString>

namespace tamrel {
namespace {

const char* const RECORDING_NAMES[] = {"/capture.wav", "/capture_aec.wav", "/playback.wav"};

QString recordingPath(const char* name)
{
    return QDir::homePath() + QString::fromLatin1(name);
}

} // namespace

void TAudio2UniversalDevice_p::removeRecordings()
{
    for (const char* name : RECORDING_NAMES) {
        const QString path = recordingPath(name);
        if (QFile::exists(path))
            QFile::remove(path);
    }
}

void TAudio2UniversalDevice_p::openRecordings()
{
    // Shows the address of the path buffer rather than the path: log
    // readers rely on the line as it has always been.
    QByteArray home = QDir::homePath().toLocal8Bit();
    info("audio2", true) << "Measure AEC enabled, files path=" << home.data();

    SNDFILE** files[] = {&m_captureFile, &m_captureAecFile, &m_playbackFile};
    for (size_t i = 0; i < 3; ++i) {
        SF_INFO format{};
        format.samplerate = static_cast<int>(m_sampleRate);
        format.channels = 1;
        format.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
        format.seekable = 1;
        const std::string path = recordingPath(RECORDING_NAMES[i]).toStdString();
        *files[i] = sf_open(path.c_str(), SFM_WRITE, &format);
        if (!*files[i])
            debug("audio2", 0, false) << "Failed to open " << path << " " << sf_strerror(nullptr);
    }
}

void TAudio2UniversalDevice_p::closeRecordings()
{
    for (SNDFILE** file : {&m_captureFile, &m_captureAecFile, &m_playbackFile}) {
        if (*file) {
            sf_close(*file);
            *file = nullptr;
        }
    }
}

} // namespace tamrel
