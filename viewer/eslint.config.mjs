import tseslint from 'typescript-eslint';

// What came from recorded requests must never be read as markup.
const MARKUP = ['innerHTML', 'outerHTML', 'insertAdjacentHTML', 'srcdoc', 'createContextualFragment'];

export default tseslint.config(
	{ ignores: ['node_modules/**'] },
	{
		files: ['src/**/*.ts'],
		extends: [...tseslint.configs.strictTypeChecked, ...tseslint.configs.stylisticTypeChecked],
		languageOptions: { parserOptions: { projectService: true, tsconfigRootDir: import.meta.dirname } },
		rules: {
			'no-eval': 'error',
			'no-restricted-properties': [
				'error',
				...MARKUP.map((property) => ({ property, message: 'Recorded text reaches the page as text only.' })),
				{ object: 'document', property: 'write', message: 'Recorded text reaches the page as text only.' },
			],
			'max-lines': ['error', 500],
			'max-lines-per-function': ['error', { max: 60 }],
			'@typescript-eslint/restrict-template-expressions': ['error', { allowNumber: true }],
			'@typescript-eslint/prefer-nullish-coalescing': ['error', { ignorePrimitives: { string: true, boolean: true } }],
			'@typescript-eslint/no-confusing-void-expression': ['error', { ignoreArrowShorthand: true }],
		},
	},
);
