package com.zivolt.hardware.dsp.recorder;

class RecorderTest {
}
