// The browser that the pages are looked at with: Debian's Chromium, headless, which asks nobody for anything.
import { chromium } from 'playwright-core';

export const widths = [390, 1440];
export const schemes = ['light', 'dark'];

/** A new browser with an empty profile, which playwright makes and removes. */
export function launch() {
    return chromium.launch({
        executablePath: process.env.TARN_CHROMIUM ?? '/usr/bin/chromium',
        headless: true,
        args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
            '--disable-background-networking', '--disable-component-update', '--disable-sync'],
    });
}
