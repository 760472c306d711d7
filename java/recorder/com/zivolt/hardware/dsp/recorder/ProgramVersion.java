package com.zivolt.hardware.dsp.recorder;

import picocli.CommandLine.IVersionProvider;

/** The version that stands in the jar's manifest. */
final class ProgramVersion implements IVersionProvider {
    @Override
    public String[] getVersion() {
        String version = ProgramVersion.class.getPackage().getImplementationVersion();
        return new String[] {"dspcard " + (version == null ? "(not from a jar)" : version)};
    }
}
