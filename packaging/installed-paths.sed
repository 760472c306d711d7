# Turns the paths of a checkout, which the pages use, into those where everything is installed, and
# leaves out what is for a checkout alone.
/^<!-- checkout -->$/,/^<!-- everywhere -->$/d
s#(\.\./|build/)bin/main#dspcard-bench#g
s#(\.\./|build/)bin/##g
s#cd build/firmware#cd /usr/share/dspcard/firmware#g
s#build/firmware#/usr/share/dspcard/firmware#g
s#(\.\./|build/)lib/([a-z-]+\.jar)#/usr/share/java/\2#g
s#(\.\./\.\./)?docs/sample\.trace#/usr/share/doc/dspcard/docs/sample.trace#g
s#`java/examples`#`/usr/share/doc/dspcard/examples`#
s# in `java/recorder`, see#, see#
s#\./build/package/[^ ]*\.deb#dspcard dspcard-sim#
# That folder is root's.
s#--record some\.trace#--record /tmp/some.trace#
