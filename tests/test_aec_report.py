"""Tests for tools/aec_report.py on synthetic calls whose echo delay, echo
suppression and processing gain are known."""

import contextlib
import io
import os
import sys
import tempfile
import unittest
from unittest import mock

import numpy as np
import soundfile as sf

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tools"))
import aec_report  # noqa: E402

RATE = 16000
# Timeline of the synthetic 14 s call (seconds): far end talks in [0,5) and
# [9,14), near end in [6,11), so windows 0-5 and 11-13 are echo alone, 6-8 near
# end alone and 9-10 double talk.
FAR = [(0, 5), (9, 14)]
NEAR = [(6, 11)]
FAR_ONLY = [0, 1, 2, 3, 4, 5, 11, 12, 13]
NEAR_ONLY = [6, 7, 8]


def speech_like(rng, seconds, spans, level_db):
    """Noise with a syllable-rate envelope, active only within spans."""
    n = int(seconds * RATE)
    if not spans:
        return np.zeros(n)
    t = np.arange(n) / RATE
    x = rng.standard_normal(n) * (0.3 + 0.7 * np.abs(np.sin(2 * np.pi * 2.5 * t)))
    mask = np.zeros(n)
    for a, b in spans:
        mask[int(a * RATE):int(b * RATE)] = 1.0
    x *= mask
    active = x[mask > 0]
    return x * 10 ** (level_db / 20) / np.sqrt(np.mean(active ** 2))


def synth_call(delay_ms=120.0, echo_path_db=-18.0, suppression_db=25.0, gain_db=6.0,
               far=FAR, near=NEAR, seconds=14, seed=1):
    """Returns (capture, capture_aec, playback): the echo is the playback delayed
    and attenuated; the processing removes suppression_db of it and then applies
    gain_db to everything."""
    rng = np.random.default_rng(seed)
    playback = speech_like(rng, seconds, far, -20)
    nearend = speech_like(rng, seconds, near, -22)
    shift = int(round(delay_ms * RATE / 1000))
    echo = np.concatenate([np.zeros(shift), playback[:len(playback) - shift]])
    echo *= 10 ** (echo_path_db / 20)
    capture = echo + nearend + rng.standard_normal(len(playback)) * 10 ** (-85 / 20)
    aec = 10 ** (gain_db / 20) * (echo * 10 ** (-suppression_db / 20) + nearend)
    return capture, aec, playback


def recordings(capture, aec, playback):
    return aec_report.Recordings(RATE, capture, aec, playback)


def write_call(directory, capture, aec, playback):
    for name, x in zip(aec_report.FILES, (capture, aec, playback)):
        sf.write(os.path.join(directory, name), x, RATE, subtype="PCM_16")


def run_main(argv):
    out, err = io.StringIO(), io.StringIO()
    with contextlib.redirect_stdout(out), contextlib.redirect_stderr(err):
        code = aec_report.main(argv)
    return code, out.getvalue(), err.getvalue()


class AnalysisTest(unittest.TestCase):
    def test_echo_delay_found_despite_near_end(self):
        for delay in (0.0, 37.5, 120.0, 640.0):
            with self.subTest(delay_ms=delay):
                capture, _, playback = synth_call(delay_ms=delay)
                found = aec_report.estimate_delay(playback, capture, RATE)
                self.assertAlmostEqual(found, delay, delta=2.0)

    def test_windows_classified_from_the_signals(self):
        rep = aec_report.analyse(recordings(*synth_call()))
        win = rep.windows
        self.assertEqual(list(np.flatnonzero(win.far_only)), FAR_ONLY)
        self.assertEqual(list(np.flatnonzero(win.near_only)), NEAR_ONLY)
        # Double talk has the far end active but must not count as echo alone.
        self.assertTrue(win.far_active[9] and win.far_active[10])
        self.assertAlmostEqual(win.echo_path_db, -18.0, delta=1.0)

    def test_erle_and_near_end_kept_match_known_processing(self):
        for suppression, gain in ((25.0, 6.0), (40.0, 0.0), (10.0, 9.0)):
            with self.subTest(suppression=suppression, gain=gain):
                rep = aec_report.analyse(recordings(*synth_call(suppression_db=suppression,
                                                                gain_db=gain)))
                # The fixed gain is part of the processed signal, so it lowers ERLE.
                self.assertAlmostEqual(rep.erle_median_db, suppression - gain, delta=1.0)
                self.assertAlmostEqual(rep.near_change_db, gain, delta=0.5)

    def test_verdicts(self):
        good = aec_report.analyse(recordings(*synth_call(suppression_db=35.0, gain_db=6.0)))
        self.assertTrue(good.verdict.startswith("echo cancelled well (median ERLE 29."),
                        good.verdict)
        weak = aec_report.analyse(recordings(*synth_call(suppression_db=12.0, gain_db=6.0)))
        self.assertTrue(weak.verdict.startswith("weak echo cancellation"), weak.verdict)
        # A processor that outputs digital silence removes the echo and the talker.
        capture, _, playback = synth_call()
        muted = aec_report.analyse(recordings(capture, np.zeros_like(capture), playback))
        self.assertTrue(np.isfinite(muted.erle_median_db))
        self.assertIn("echo cancelled well", muted.verdict)
        self.assertIn("near-end speech lost", muted.verdict)

    def test_no_far_end_cannot_be_judged(self):
        rep = aec_report.analyse(recordings(*synth_call(far=[])))
        self.assertTrue(np.isnan(rep.delay_ms))
        self.assertFalse(rep.windows.far_only.any())
        self.assertTrue(rep.verdict.startswith("cannot judge"), rep.verdict)
        self.assertAlmostEqual(rep.near_change_db, 6.0, delta=0.5)


class CommandLineTest(unittest.TestCase):
    def setUp(self):
        self._tmp = tempfile.TemporaryDirectory()
        self.dir = self._tmp.name

    def tearDown(self):
        self._tmp.cleanup()

    def test_report_and_plot(self):
        capture, aec, playback = synth_call()
        # The files may stop up to one 20 ms period apart.
        write_call(self.dir, capture, aec, playback[:-320])
        code, out, err = run_main(["--dir", self.dir])
        self.assertEqual(code, 0, err)
        lines = out.splitlines()
        png = os.path.join(self.dir, "aec_report.png")
        self.assertEqual(lines[-1], f"plot: {png}")
        self.assertIn("duration: 13.98 s", lines)
        self.assertFalse([l for l in lines if l.startswith("note:")], out)
        delay = next(l for l in lines if l.startswith("echo delay:"))
        self.assertAlmostEqual(float(delay.split()[2]), 120.0, delta=2.0)
        self.assertTrue(any(l.startswith("verdict: weak echo cancellation") for l in lines), out)
        with open(png, "rb") as f:
            data = f.read()
        self.assertTrue(data.startswith(b"\x89PNG"))
        self.assertGreater(len(data), 10000)

    def test_home_is_the_default_directory(self):
        write_call(self.dir, *synth_call(seconds=3, far=[(0, 3)], near=[]))
        other = os.path.join(self.dir, "elsewhere.png")
        with mock.patch.dict(os.environ, {"HOME": self.dir}):
            code, out, _ = run_main(["--png", other])
        self.assertEqual(code, 0)
        self.assertEqual(out.splitlines()[-1], f"plot: {other}")
        self.assertTrue(os.path.getsize(other) > 0)

    def test_unusable_recordings_exit_2(self):
        capture, aec, playback = synth_call(seconds=2, far=[(0, 2)], near=[])

        def missing():
            os.remove(os.path.join(self.dir, "capture_aec.wav"))

        def garbage():
            with open(os.path.join(self.dir, "capture.wav"), "wb") as f:
                f.write(b"RIFF not really a wave file")

        def other_rate():
            sf.write(os.path.join(self.dir, "playback.wav"), playback, 8000, subtype="PCM_16")

        for spoil, expected in ((missing, "capture_aec.wav"), (garbage, "capture.wav"),
                                (other_rate, "sample rates")):
            with self.subTest(spoil.__name__):
                write_call(self.dir, capture, aec, playback)
                spoil()
                code, out, err = run_main(["--dir", self.dir])
                self.assertEqual(code, 2)
                self.assertIn(expected, err)
                self.assertEqual(out, "")
                self.assertFalse(os.path.exists(os.path.join(self.dir, "aec_report.png")))


if __name__ == "__main__":
    unittest.main()
