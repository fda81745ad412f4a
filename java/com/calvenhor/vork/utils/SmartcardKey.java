package com.calvenhor.vork.utils;

import java.math.BigInteger;
import java.security.PrivateKey;
import java.security.interfaces.RSAKey;
import java.security.interfaces.RSAPublicKey;
import java.security.spec.AlgorithmParameterSpec;
import java.util.HexFormat;

/**
 * A private key by its place, slot and ID. It holds no handle, so it outlives its session, and no secret. Algorithms
 * are chosen by its size, which it has from its certificate.
 */
record SmartcardKey(SmartcardSlot slot, byte[] id, RSAPublicKey publicKey) implements PrivateKey, RSAKey {
    @Override
    public String getAlgorithm() {
        return "RSA";
    }

    @Override
    public String getFormat() {
        return null;
    }

    @Override
    public byte[] getEncoded() {
        return null;
    }

    @Override
    public BigInteger getModulus() {
        return publicKey.getModulus();
    }

    /** From JDK 22 up both interfaces have it, and a class without its own dies when it is called. */
    @Override
    public AlgorithmParameterSpec getParams() {
        return null;
    }

    @Override
    public String toString() {
        return "RSA key with the ID " + HexFormat.of().formatHex(id) + " in slot " + slot.index();
    }
}
