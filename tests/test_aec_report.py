"""tools/aec_report.py on synthetic calls with known echo delay, suppression and gain."""

import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

import numpy as np
import soundfile as sf

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tools"))
import aec_report  # noqa: E402

RATE = 16000
# As taudio2call writes it (tests/test_callsession.cpp holds the same text).
CALL_RECORD = ('{"rate": 16000, "period_ms": 20, "playback_channels": 2, "capture_channels": 1, "told_delay_ms": 100, '
               '"aec_mode": "robust", "robust_told_delay_ms": 100, "robust_earliest_ms": 50, "sound_layer": "Pulse", '
               '"card_rate_hz": 48000, "granted_buffer_frames": 1024, "playback_queue_buffers": 3, "last_buffer_frames": '
               '512, "frames_carried": 4294967296, "frames_lost": 960, "recoveries": 1, "ended": true}\n')


def synth_call(delay_ms=120.0, suppression_db=25.0, gain_db=6.0, far_db=-20.0):
    """Noise with a syllable rhythm: the far end in seconds 0-5 and 9-14, its echo delay_ms later at -18 dB, the near
    end in 6-11; the processing removes suppression_db of the echo, then adds gain_db to everything."""
    rng, t = np.random.default_rng(1), np.arange(14 * RATE) / RATE

    def speech(spans, level_db):
        on = np.any([(t >= a) & (t < b) for a, b in spans], axis=0)
        x = rng.standard_normal(len(t)) * (0.3 + 0.7 * np.abs(np.sin(2 * np.pi * 2.5 * t))) * on
        return x * 10 ** (level_db / 20) / np.sqrt(np.mean(x[on] ** 2))
    playback, nearend = speech(((0, 5), (9, 14)), far_db), speech(((6, 11),), -22)
    shift = int(round(delay_ms * RATE / 1000))   # made here, not with the report's own helper
    echo = np.concatenate([np.zeros(shift), playback[:len(playback) - shift]]) * 10 ** (-18 / 20)
    aec = 10 ** (gain_db / 20) * (echo * 10 ** (-suppression_db / 20) + nearend)
    return aec_report.Recordings(RATE, echo + nearend + rng.standard_normal(len(t)) * 10 ** (-85 / 20), aec, playback)


class ReportTest(unittest.TestCase):
    def test_delay_windows_erle_near_end_and_verdict(self):
        # Windows 0-4 (5 too with a late echo) and 11-13 hold echo alone, 6-8 the near end alone. The fixed gain is
        # part of the processed signal, so it lowers ERLE.
        for delay, suppression, gain in ((120.0, 25.0, 6.0), (0.0, 40.0, 0.0), (37.5, 10.0, 9.0), (640.0, 25.0, 0.0)):
            with self.subTest(delay=delay, suppression=suppression, gain=gain):
                rep = aec_report.analyse(synth_call(delay, suppression, gain))
                self.assertEqual(list(np.flatnonzero(rep.windows.far_only)), [*range(6 if delay else 5), 11, 12, 13])
                self.assertEqual(list(np.flatnonzero(rep.windows.near_only)), [6, 7, 8])
                got = np.array([rep.delay_ms, rep.windows.echo_path_db, rep.erle_median_db, rep.near_change_db])
                np.testing.assert_array_less(abs(got - [delay, -18, suppression - gain, gain]), [2, 1, 1, 0.5])
                self.assertRegex(rep.verdict, "^echo cancelled well" if suppression - gain >= 20 else "^weak echo")
        # Muting everything is no cancelling; a far end too quiet to count leaves nothing to judge by.
        self.assertRegex(aec_report.analyse(synth_call(gain_db=-200)).verdict, "^echo cancelled well.*speech lost")
        self.assertTrue(aec_report.analyse(synth_call(far_db=-90)).verdict.startswith("cannot judge"))

    def test_diagnosis_against_told_delay_window_and_robust_reach(self):
        # The record says robust mode would be told 80 ms and reaches 50 ms before that: from 30 ms on.
        for delay, told, mode, channels, expected in (
                (145.0, 130, "standard", 2, "+15 ms; inside the standard window (145 to 185 ms)"),
                (186.0, 130, "standard", 2, "outside the standard window (145 to 185 ms); run with --aec robust"),
                (30.0, 130, "standard", 2, "-100 ms; outside the standard window (145 to 185 ms)"),
                (29.0, 130, "standard", 2, "neither mode handles well; try one output channel"),
                (30.0, 80, "robust", 1, "-50 ms; within robust mode's reach (from 50 ms before the told delay on)"),
                (29.0, 80, "robust", 1, "neither mode handles well; try two output channels"),
                (float("nan"), 60, "standard", 1, "told 60 ms, but no echo delay could be measured"),
                (181.0, 130, "off", 2, "no echo canceller")):
            record = dict(told_delay_ms=told, aec_mode=mode, playback_channels=channels, robust_told_delay_ms=80,
                          robust_earliest_ms=50)
            self.assertIn(expected, aec_report.diagnose(delay, record))

    def test_command_line_writes_report_plot_and_diagnosis_or_exits_2(self):
        home, rec = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory())), synth_call()
        (home / "call.json").write_text(CALL_RECORD)
        # Recordings at different rates cannot be compared: no report, no plot. The files may stop one period apart.
        for playback_rate, code in ((8000, 2), (RATE, 0)):
            for name, x in zip(aec_report.FILES, (rec.capture, rec.capture_aec, rec.playback[:-320])):
                sf.write(home / name, x, playback_rate if name == "playback.wav" else RATE, subtype="PCM_16")
            run = subprocess.run([sys.executable, aec_report.__file__], capture_output=True, text=True,
                                 env=dict(os.environ, HOME=str(home)))
            self.assertEqual((run.returncode, run.stdout == "", "sample rates" in run.stderr,
                              (home / "aec_report.png").exists()), (code, code == 2, code == 2, code == 0), run.stderr)
        self.assertRegex(run.stdout, r"\nverdict: weak echo cancellation .*\ndiagnosis: echo 120 ms, told 100 ms .*: "
                                     r"\+20 ms; within robust mode's reach .*\nplot: .*/aec_report\.png\n$")
        # A record without the robust fields is an older taudio2call's: no diagnosis rather than a guessed one.
        (home / "call.json").write_text(CALL_RECORD.replace('"robust_earliest_ms"', '"x"'))
        self.assertIsNone(aec_report.read_call_record(str(home)))
