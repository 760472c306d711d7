# Turns the paths of a checkout, which the pages use, into those where everything is installed.
s#(\.\./|build/)bin/main#dspcard-bench#g
s#(\.\./|build/)bin/##g
s#cd build/firmware#cd /usr/share/dspcard/firmware#g
s#build/firmware#/usr/share/dspcard/firmware#g
s#(\.\./|build/)lib/([a-z-]+\.jar)#/usr/share/java/\2#g
