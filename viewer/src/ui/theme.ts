/*
 * Light or dark: as the system has it, unless it was chosen here. What draws on a canvas asks for
 * colours by their names and draws anew when they have changed.
 */

export type Theme = 'system' | 'light' | 'dark';

const THEMES: readonly Theme[] = ['system', 'light', 'dark'];
const STORED = 'kaq-theme';

const listeners = new Set<() => void>();
const colours = new Map<string, string>();
let probe: HTMLElement | undefined;

function stored(): Theme {
	try {
		const text = localStorage.getItem(STORED) as Theme | null;
		return text && THEMES.includes(text) ? text : 'system';
	} catch {
		return 'system';
	}
}

let chosen: Theme = 'system';

function apply(): void {
	document.documentElement.style.setProperty('color-scheme', chosen === 'system' ? 'light dark' : chosen);
	colours.clear();
	for (const each of [...listeners]) {
		each();
	}
}

export function startTheme(): void {
	chosen = stored();
	apply();
	matchMedia('(prefers-color-scheme: dark)').addEventListener('change', apply);
}

export function theme(): Theme {
	return chosen;
}

export function chooseTheme(wanted: Theme): void {
	chosen = wanted;
	try {
		localStorage.setItem(STORED, wanted);
	} catch {
		// It holds until the page is left.
	}
	apply();
}

export function nextTheme(): Theme {
	const next = THEMES[(THEMES.indexOf(chosen) + 1) % THEMES.length] ?? 'system';
	chooseTheme(next);
	return next;
}

/* The program that is returned ends it. */
export function onTheme(listener: () => void): () => void {
	listeners.add(listener);
	return () => listeners.delete(listener);
}

/* The colour that a custom property of style/tokens.css has now, such as `--line`. */
export function colour(name: string): string {
	const known = colours.get(name);
	if (known) {
		return known;
	}
	if (!probe) {
		probe = document.createElement('span');
		probe.hidden = true;
		document.body.append(probe);
	}
	probe.style.setProperty('color', `var(${name})`);
	const value = getComputedStyle(probe).color;
	colours.set(name, value);
	return value;
}
