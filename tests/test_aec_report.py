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
CALL_RECORD = ('{"rate": 16000, "period_ms": 20, "playback_channels": 2, "capture_channels": 1, '
               '"told_delay_ms": 100, "aec_mode": "robust", "robust_told_delay_ms": 100, "robust_earliest_ms": 50, '
               '"sound_layer": "Pulse", "card_rate_hz": 48000, "granted_buffer_frames": 1024, "last_buffer_frames": 512, '
               '"frames_carried": 4294967296, "frames_lost": 960, "recoveries": 1, "ended": true}\n')


def synth_call(delay_ms=120.0, suppression_db=25.0, gain_db=6.0, seconds=14, far=((0, 5), (9, 14)), near=((6, 11),)):
    """Far and near end are noise with a syllable rhythm; the echo is the playback delay_ms later at -18 dB; the
    processing removes suppression_db of it, then adds gain_db to everything.  On the default timeline windows
    0-4 (5 too with a late echo) and 11-13 hold echo alone, 6-8 the near end alone, 9-10 both."""
    rng, t = np.random.default_rng(1), np.arange(int(seconds * RATE)) / RATE

    def speech(spans, level_db):
        on = np.any([(t >= a) & (t < b) for a, b in spans], axis=0) if spans else np.zeros(len(t), bool)
        x = rng.standard_normal(len(t)) * (0.3 + 0.7 * np.abs(np.sin(2 * np.pi * 2.5 * t))) * on
        return x * 10 ** (level_db / 20) / np.sqrt(np.mean(x[on] ** 2)) if spans else x
    playback, nearend = speech(far, -20), speech(near, -22)
    shift = int(round(delay_ms * RATE / 1000))   # made here, not with the report's own helper
    echo = np.concatenate([np.zeros(shift), playback[:len(playback) - shift]]) * 10 ** (-18 / 20)
    capture = echo + nearend + rng.standard_normal(len(t)) * 10 ** (-85 / 20)
    return aec_report.Recordings(RATE, capture, 10 ** (gain_db / 20) * (echo * 10 ** (-suppression_db / 20) + nearend),
                                 playback)


class AnalysisTest(unittest.TestCase):
    def test_delay_windows_erle_near_end_and_verdict(self):
        # The fixed gain is part of the processed signal, so it lowers ERLE.
        for delay, suppression, gain, verdict in ((120.0, 25.0, 6.0, "weak echo cancellation (median ERLE 19."),
                                                  (0.0, 40.0, 0.0, "echo cancelled well (median ERLE 40."),
                                                  (37.5, 10.0, 9.0, "weak echo cancellation (median ERLE 1."),
                                                  (640.0, 25.0, 0.0, "echo cancelled well (median ERLE 25.")):
            with self.subTest(delay=delay, suppression=suppression, gain=gain):
                rep = aec_report.analyse(synth_call(delay, suppression, gain))
                self.assertAlmostEqual(rep.delay_ms, delay, delta=2.0)
                self.assertEqual(list(np.flatnonzero(rep.windows.far_only)), [*range(6 if delay else 5), 11, 12, 13])
                self.assertEqual(list(np.flatnonzero(rep.windows.near_only)), [6, 7, 8])
                self.assertAlmostEqual(rep.windows.echo_path_db, -18.0, delta=1.0)
                self.assertAlmostEqual(rep.erle_median_db, suppression - gain, delta=1.0)
                self.assertAlmostEqual(rep.near_change_db, gain, delta=0.5)
                self.assertTrue(rep.verdict.startswith(verdict), rep.verdict)
        muted = synth_call()
        muted.capture_aec = np.zeros_like(muted.capture)
        self.assertRegex(aec_report.analyse(muted).verdict, "^echo cancelled well .*; but near-end speech lost")
        silent_far = aec_report.analyse(synth_call(far=()))
        self.assertTrue(np.isnan(silent_far.delay_ms) and silent_far.verdict.startswith("cannot judge"), silent_far.verdict)
        self.assertAlmostEqual(silent_far.near_change_db, 6.0, delta=0.5)

    def test_diagnosis_against_told_delay_window_and_robust_reach(self):
        # The record says robust mode would be told 80 ms and reaches 50 ms before that: from 30 ms on.
        too_early = "before the told delay, which neither mode handles well; try "
        for delay, told, mode, channels, expected in (
                (181.0, 130, "standard", 2, "+51 ms; inside the standard window (145 to 185 ms)"),
                (186.0, 130, "standard", 2, "outside the standard window (145 to 185 ms); run with --aec robust"),
                (30.0, 130, "standard", 2, "-100 ms; outside the standard window (145 to 185 ms); run with --aec robust"),
                (29.0, 130, "standard", 2, too_early + "one output channel (--channels 1)"),
                (30.0, 80, "robust", 1, "-50 ms; within robust mode's reach (from 50 ms before the told delay on)"),
                (29.0, 80, "robust", 1, too_early + "two output channels (--channels 2)"),
                (float("nan"), 60, "standard", 1, "told 60 ms, but no echo delay could be measured"),
                (181.0, 130, "off", 2, "no echo canceller")):
            record = {"told_delay_ms": told, "aec_mode": mode, "playback_channels": channels,
                      "robust_told_delay_ms": 80, "robust_earliest_ms": 50}
            line = aec_report.diagnose(delay, record)
            self.assertTrue(line.startswith("diagnosis: ") and expected in line, line)


class CommandLineTest(unittest.TestCase):
    def run_main(self, rec, argv, spoil=lambda: None):
        """The report, run as a program on `rec`'s files in a private $HOME (self.dir)."""
        for name, x in zip(aec_report.FILES, (rec.capture, rec.capture_aec, rec.playback)):
            sf.write(self.dir / name, x, RATE, subtype="PCM_16")
        spoil()
        run = subprocess.run([sys.executable, aec_report.__file__, *argv], capture_output=True, text=True,
                             env=dict(os.environ, HOME=str(self.dir)))
        return run.returncode, run.stdout, run.stderr

    def setUp(self):
        self.dir = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))

    def test_report_plot_and_call_record_in_home(self):
        rec = synth_call()
        rec.playback = rec.playback[:-320]   # the files may stop one 20 ms period apart
        # A record without the robust fields is an older taudio2call's: no diagnosis rather than a guessed one.
        for record, diagnosis in ((None, None), ("{not json", None), (CALL_RECORD.replace('"robust"', '"loud"'), None),
                                  (CALL_RECORD.replace('"robust_earliest_ms"', '"x"'), None),
                                  (CALL_RECORD, "\ndiagnosis: echo 120 ms, told 100 ms (robust mode, 2 output channels): "
                                                "+20 ms; within robust mode's reach")):
            with self.subTest(record):
                if record:
                    (self.dir / "call.json").write_text(record)
                code, out, err = self.run_main(rec, [])
                self.assertEqual(code, 0, err)
                self.assertRegex(out, r"^files: .*\nduration: 13\.98 s\necho delay: 1(19|20|21)\.\d ms\n")
                self.assertIn("\nverdict: weak echo cancellation (median ERLE 19.", out)
                self.assertTrue(diagnosis in out if diagnosis else "diagnosis:" not in out, out)
                self.assertTrue(out.endswith(f"\nplot: {self.dir / 'aec_report.png'}\n"), out)
                data = (self.dir / "aec_report.png").read_bytes()
                self.assertTrue(data.startswith(b"\x89PNG") and len(data) > 10000)

    def test_unusable_recordings_exit_2(self):
        rec = synth_call(seconds=2, far=((0, 2),), near=())
        for spoil, expected in ((lambda: (self.dir / "capture_aec.wav").unlink(), "capture_aec.wav"),
                                (lambda: (self.dir / "capture.wav").write_bytes(b"RIFF junk"), "capture.wav"),
                                (lambda: sf.write(self.dir / "playback.wav", rec.playback, 8000), "sample rates")):
            with self.subTest(expected):
                code, out, err = self.run_main(rec, ["--dir", str(self.dir)], spoil)
                self.assertEqual((code, out), (2, ""))
                self.assertIn(expected, err)
                self.assertFalse((self.dir / "aec_report.png").exists())
