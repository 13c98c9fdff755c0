"""tools/aec_report.py on synthetic calls with known echo delay, suppression and gain."""

import contextlib
import io
import os
import pathlib
import sys
import tempfile
import unittest
from unittest import mock

import numpy as np
import soundfile as sf

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tools"))
import aec_report  # noqa: E402

RATE = 16000


def speech_like(rng, seconds, spans, level_db):
    t = np.arange(int(seconds * RATE)) / RATE
    mask = np.zeros(len(t))
    for a, b in spans:
        mask[int(a * RATE):int(b * RATE)] = 1.0
    x = rng.standard_normal(len(t)) * (0.3 + 0.7 * np.abs(np.sin(2 * np.pi * 2.5 * t))) * mask
    return x * 10 ** (level_db / 20) / np.sqrt(np.mean(x[mask > 0] ** 2)) if spans else x


def synth_call(delay_ms=120.0, suppression_db=25.0, gain_db=6.0, seconds=14,
               far=((0, 5), (9, 14)), near=((6, 11),)):
    """The echo is the playback delayed by delay_ms at -18 dB; the processing removes
    suppression_db of it, then applies gain_db to everything.  On the default timeline
    windows 0-5 and 11-13 hold echo alone, 6-8 the near end alone, 9-10 both."""
    rng = np.random.default_rng(1)
    playback = speech_like(rng, seconds, far, -20)
    nearend = speech_like(rng, seconds, near, -22)
    shift = int(round(delay_ms * RATE / 1000))
    echo = np.concatenate([np.zeros(shift), playback[:len(playback) - shift]]) * 10 ** (-18 / 20)
    capture = echo + nearend + rng.standard_normal(len(playback)) * 10 ** (-85 / 20)
    aec = 10 ** (gain_db / 20) * (echo * 10 ** (-suppression_db / 20) + nearend)
    return aec_report.Recordings(RATE, capture, aec, playback)


class AnalysisTest(unittest.TestCase):
    def test_echo_delay_found_despite_near_end(self):
        for delay in (0.0, 37.5, 120.0, 640.0):
            rec = synth_call(delay_ms=delay)
            found = aec_report.estimate_delay(rec.playback, rec.capture, RATE)
            self.assertAlmostEqual(found, delay, delta=2.0, msg=f"{delay} ms")

    def test_windows_erle_near_end_and_verdict(self):
        # The fixed gain is part of the processed signal, so it lowers ERLE.
        for suppression, gain, verdict in ((25.0, 6.0, "weak echo cancellation (median ERLE 19."),
                                           (40.0, 0.0, "echo cancelled well (median ERLE 40."),
                                           (10.0, 9.0, "weak echo cancellation (median ERLE 1.")):
            with self.subTest(suppression=suppression, gain=gain):
                rep = aec_report.analyse(synth_call(suppression_db=suppression, gain_db=gain))
                win = rep.windows
                self.assertEqual(list(np.flatnonzero(win.far_only)), [0, 1, 2, 3, 4, 5, 11, 12, 13])
                self.assertEqual(list(np.flatnonzero(win.near_only)), [6, 7, 8])
                self.assertAlmostEqual(win.echo_path_db, -18.0, delta=1.0)
                self.assertAlmostEqual(rep.erle_median_db, suppression - gain, delta=1.0)
                self.assertAlmostEqual(rep.near_change_db, gain, delta=0.5)
                self.assertTrue(rep.verdict.startswith(verdict), rep.verdict)

    def test_muted_output_and_silent_far_end(self):
        rec = synth_call()
        rec.capture_aec = np.zeros_like(rec.capture)
        verdict = aec_report.analyse(rec).verdict
        self.assertRegex(verdict, "^echo cancelled well .*; but near-end speech lost")
        silent_far = aec_report.analyse(synth_call(far=()))
        self.assertTrue(np.isnan(silent_far.delay_ms))
        self.assertTrue(silent_far.verdict.startswith("cannot judge"), silent_far.verdict)
        self.assertAlmostEqual(silent_far.near_change_db, 6.0, delta=0.5)


# As taudio2call writes it (tests/test_callsession.cpp holds the same text).
CALL_RECORD = ('{"rate": 16000, "period_ms": 20, "playback_channels": 2, "capture_channels": 1, '
               '"told_delay_ms": 100, "aec_mode": "robust", "robust_told_delay_ms": 100, "robust_earliest_ms": 50, '
               '"sound_layer": "Pulse", "card_rate_hz": 48000, '
               '"granted_buffer_frames": 1024, "last_buffer_frames": 512, "frames_carried": 4294967296, '
               '"frames_lost": 960, "recoveries": 1, "ended": true}\n')


class DiagnosisTest(unittest.TestCase):
    def test_echo_against_told_delay_and_window(self):
        for delay, told, mode, channels, expected in (
                (181.0, 130, "standard", 2, "+51 ms; inside the standard window (145 to 185 ms)"),
                (186.0, 130, "standard", 2, "outside the standard window (145 to 185 ms); run with --aec robust"),
                (140.0, 130, "standard", 2, "outside the standard window"),
                (183.0, 60, "robust", 1, "within robust mode's reach"),
                (50.0, 130, "robust", 2, "before the told delay, which neither mode handles well; "
                                         "try one output channel (--channels 1)"),
                (72.0, 130, "standard", 2, "outside the standard window (145 to 185 ms); run with --aec robust"),
                (30.0, 130, "standard", 2, "before the told delay"),
                (float("nan"), 60, "standard", 1, "no echo delay could be measured"),
                (181.0, 130, "off", 2, "no echo canceller")):
            with self.subTest(delay=delay, told=told, mode=mode):
                record = {"told_delay_ms": told, "aec_mode": mode, "playback_channels": channels,
                          "robust_told_delay_ms": 100, "robust_earliest_ms": 50}
                line = aec_report.diagnose(delay, record)
                self.assertTrue(line.startswith("diagnosis: "), line)
                self.assertIn(expected, line)


class CommandLineTest(unittest.TestCase):
    def setUp(self):
        self.dir = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.enterContext(mock.patch.dict(os.environ, {"HOME": str(self.dir)}))

    def run_main(self, rec, argv, spoil=lambda: None):
        for name, x in zip(aec_report.FILES, (rec.capture, rec.capture_aec, rec.playback)):
            sf.write(self.dir / name, x, RATE, subtype="PCM_16")
        spoil()
        out, err = io.StringIO(), io.StringIO()
        with contextlib.redirect_stdout(out), contextlib.redirect_stderr(err):
            code = aec_report.main(argv)
        return code, out.getvalue(), err.getvalue()

    def test_report_and_plot_default_to_home(self):
        rec = synth_call()
        rec.playback = rec.playback[:-320]   # the files may stop one 20 ms period apart
        code, out, err = self.run_main(rec, [])
        self.assertEqual(code, 0, err)
        self.assertNotIn("note:", out)
        self.assertIn("\nduration: 13.98 s\n", out)
        self.assertAlmostEqual(float(out.split("\necho delay: ")[1].split()[0]), 120.0, delta=2.0)
        self.assertIn("\nverdict: weak echo cancellation (median ERLE 19.", out)
        self.assertNotIn("diagnosis:", out)
        self.assertTrue(out.endswith(f"\nplot: {self.dir / 'aec_report.png'}\n"), out)
        data = (self.dir / "aec_report.png").read_bytes()
        self.assertTrue(data.startswith(b"\x89PNG") and len(data) > 10000)

    def test_call_record_beside_the_recordings(self):
        for text, diagnosis in ((CALL_RECORD, "\ndiagnosis: echo 120 ms, told 100 ms (robust mode, 2 output "
                                              "channels): +20 ms; within robust mode's reach"),
                                ("{not json", None), ('{"rate": 16000}', None),
                                (CALL_RECORD.replace('"robust"', '"loud"'), None),
                                (CALL_RECORD.replace('"robust_told_delay_ms"', '"x"'), None)):
            with self.subTest(text):
                (self.dir / "call.json").write_text(text)
                code, out, err = self.run_main(synth_call(seconds=6, far=((0, 6),), near=()), [])
                self.assertEqual(code, 0, err)
                if diagnosis:
                    self.assertIn(diagnosis, out)
                else:
                    self.assertNotIn("diagnosis:", out)

    def test_unusable_recordings_exit_2(self):
        rec = synth_call(seconds=2, far=((0, 2),), near=())
        for spoil, expected in (
                (lambda: (self.dir / "capture_aec.wav").unlink(), "capture_aec.wav"),
                (lambda: (self.dir / "capture.wav").write_bytes(b"RIFF junk"), "capture.wav"),
                (lambda: sf.write(self.dir / "playback.wav", rec.playback, 8000), "sample rates")):
            with self.subTest(expected):
                code, out, err = self.run_main(rec, ["--dir", str(self.dir)], spoil)
                self.assertEqual((code, out), (2, ""))
                self.assertIn(expected, err)
                self.assertFalse((self.dir / "aec_report.png").exists())


if __name__ == "__main__":
    unittest.main()
