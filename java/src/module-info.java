/** The client of the line cards, and what stands in for the cards in tests. */
module com.zivolt.hardware.dsp {
    exports com.zivolt.hardware.dsp.client;
    exports com.zivolt.hardware.dsp.cppint;
    exports com.zivolt.hardware.dsp.testing;
}
