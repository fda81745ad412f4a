package com.calvenhor.vork.utils;

import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.math.BigInteger;
import java.security.InvalidKeyException;
import java.security.InvalidParameterException;
import java.security.MessageDigest;
import java.security.NoSuchAlgorithmException;
import java.security.PrivateKey;
import java.security.PublicKey;
import java.security.SignatureException;
import java.security.SignatureSpi;
import java.security.interfaces.RSAPublicKey;
import java.util.Arrays;
import java.util.HexFormat;
import java.util.List;

/** RSA signatures with PKCS #1 v1.5. The token signs; this class verifies. */
final class SmartcardSignature extends SignatureSpi {
    /** Each algorithm has its OID, its digest and the part of the DER DigestInfo before the digest. */
    enum Algorithm {
        NONEwithRSA(null, null, ""), // the caller passes the DigestInfo; no OID
        SHA1withRSA("1.2.840.113549.1.1.5", "SHA-1", "3021300906052b0e03021a05000414"),
        SHA224withRSA("1.2.840.113549.1.1.14", "SHA-224", "302d300d06096086480165030402040500041c"),
        SHA256withRSA("1.2.840.113549.1.1.11", "SHA-256", "3031300d060960864801650304020105000420"),
        SHA384withRSA("1.2.840.113549.1.1.12", "SHA-384", "3041300d060960864801650304020205000430"),
        SHA512withRSA("1.2.840.113549.1.1.13", "SHA-512", "3051300d060960864801650304020305000440"),
        SHA3_224withRSA("2.16.840.1.101.3.4.3.13", "SHA3-224", "302d300d06096086480165030402070500041c"),
        SHA3_256withRSA("2.16.840.1.101.3.4.3.14", "SHA3-256", "3031300d060960864801650304020805000420"),
        SHA3_384withRSA("2.16.840.1.101.3.4.3.15", "SHA3-384", "3041300d060960864801650304020905000430"),
        SHA3_512withRSA("2.16.840.1.101.3.4.3.16", "SHA3-512", "3051300d060960864801650304020a05000440");

        private final String oid;
        private final String digest;
        private final byte[] prefix;

        Algorithm(String oid, String digest, String prefix) {
            this.oid = oid;
            this.digest = digest;
            this.prefix = HexFormat.of().parseHex(prefix);
        }

        /** {@return the name in the JDK, such as SHA3-256withRSA} */
        String standardName() {
            return name().replace('_', '-');
        }

        /** {@return the OID, if there is one} */
        List<String> aliases() {
            return oid == null ? List.of() : List.of(oid);
        }
    }

    private final Algorithm algorithm;
    private final MessageDigest digest; // null: the data is signed as it is
    private final ByteArrayOutputStream data = new ByteArrayOutputStream();
    private SmartcardKey key;
    private RSAPublicKey publicKey;

    SmartcardSignature(Algorithm algorithm) throws NoSuchAlgorithmException {
        this.algorithm = algorithm;
        digest = algorithm.digest == null ? null : MessageDigest.getInstance(algorithm.digest);
    }

    @Override
    protected void engineInitSign(PrivateKey privateKey) throws InvalidKeyException {
        if (!(privateKey instanceof SmartcardKey smartcardKey)) {
            throw new InvalidKeyException(privateKey == null ? "the key is null: getKey returns null for "
                    + "an alias that has no key" : "expected a key from a KeyStore of the type Smartcard");
        }
        key = smartcardKey;
        engineInitVerify(key.publicKey()); // each signature is verified with it
    }

    @Override
    protected void engineInitVerify(PublicKey publicKey) throws InvalidKeyException {
        if (!(publicKey instanceof RSAPublicKey rsaPublicKey)) {
            throw new InvalidKeyException("expected an RSA public key");
        }
        this.publicKey = rsaPublicKey;
        takeDigestInfo(); // discards the data of an unfinished signature
    }

    @Override
    protected void engineUpdate(byte b) {
        engineUpdate(new byte[] {b}, 0, 1);
    }

    @Override
    protected void engineUpdate(byte[] bytes, int offset, int length) {
        if (digest != null) {
            digest.update(bytes, offset, length);
        } else {
            data.write(bytes, offset, length);
        }
    }

    /** {@return the DigestInfo of the data so far} Resets the data. */
    private byte[] takeDigestInfo() {
        if (digest != null) {
            data.writeBytes(algorithm.prefix);
            data.writeBytes(digest.digest());
        }
        byte[] digestInfo = data.toByteArray();
        data.reset();
        return digestInfo;
    }

    @Override
    protected byte[] engineSign() throws SignatureException {
        byte[] digestInfo = takeDigestInfo();
        byte[] block = pad(digestInfo);
        byte[] signature;
        try {
            signature = key.slot().sign(digestInfo, key.id());
        } catch (IOException e) {
            throw new SignatureException(e.getMessage(), e);
        }
        if (!isSignatureOf(signature, block)) {
            throw new SignatureException("the certificate does not verify the signature of the " + key
                    + ": the certificate belongs to another key, or another card is in the slot");
        }
        return signature;
    }

    @Override
    protected boolean engineVerify(byte[] signature) throws SignatureException {
        return isSignatureOf(signature, pad(takeDigestInfo()));
    }

    /** {@return the padded DigestInfo, as long as the modulus: the result of RSA on a valid signature} */
    private byte[] pad(byte[] digestInfo) throws SignatureException {
        byte[] block = new byte[(publicKey.getModulus().bitLength() + 7) / 8];
        int start = block.length - digestInfo.length;
        if (start < 11) {
            throw new SignatureException("a key of this size signs at most " + (block.length - 11) + " bytes, not "
                    + digestInfo.length + (digest == null ? "; sign a DigestInfo" : "; choose a shorter digest"));
        }
        Arrays.fill(block, 2, start - 1, (byte) 0xFF);
        block[1] = 1;
        System.arraycopy(digestInfo, 0, block, start, digestInfo.length);
        return block;
    }

    private boolean isSignatureOf(byte[] signature, byte[] block) {
        BigInteger modulus = publicKey.getModulus();
        BigInteger number = new BigInteger(1, signature);
        return signature.length == block.length && number.compareTo(modulus) < 0
                && number.modPow(publicKey.getPublicExponent(), modulus).equals(new BigInteger(1, block));
    }

    // ---- Parameters: none ----

    @Override
    @Deprecated
    protected void engineSetParameter(String name, Object value) {
        throw new InvalidParameterException("there is no parameter " + name);
    }

    @Override
    @Deprecated
    protected Object engineGetParameter(String name) {
        throw new InvalidParameterException("there is no parameter " + name);
    }
}
